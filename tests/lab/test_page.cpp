// The lab's page as a browser shows it.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "lab/store/plans.h"
#include "lab/store/requests.h"
#include "tests/lab/browser.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

class PageInBrowser : public Lab {
  protected:
    void Send(const std::string& name, const std::string& fault) {
        const std::string text =
            fmt::format(R"({{ "DATACOLLECTTIME": "{}", "ERRORMSG": "{}", "{}": [ {{ "Name": "x", "Size": "7" }} ] }})",
                        Now() / 1000, fault, name);
        const std::string zip = fmt::format("AGENTKEY=LAB1&FILENAME=Agent_LAB1_{}.zip", ++sent);
        ASSERT_EQ(Upload(client, zip, MakeArchive({{"data/a.txt", WideBytes(text)}}))->status, 200);
    }

    std::string Address(const std::string& path) const { return server->address() + path.substr(1); }

    int sent = 0;
    Browser browser;
};

TEST_F(PageInBrowser, FitsItsViewAndItsLinksWork) {
    Send("Disks", "NO ERROR");
    Send(std::string(120, 'N'), std::string(300, 'w'));
    AddRequest(store, {"LAB1", "TEST_MONITOR", "", {{"WMIQUERY", std::string(200, 'q')}}});
    KeepStartPlan(store, R"({ "WorkFlows": [ { "wfname": "W", "recordSetName": [ { "Name": "P" } ] } ] })");
    client.Get("/servlets/RegisterAgent?agentKey=AWAITED&agentID=" + std::string(80, 'i'));
    AddFault(store, {0, "StatusUpdateServlet", FaultKind::status, 503, 1});
    for (const int width : {1280, 400}) {
        browser.SetView(width, 900);
        for (const char* const path : {"/", "/records", "/requests", "/agents", "/record/2", "/plot?member=x%20Size"}) {
            SCOPED_TRACE(fmt::format("{} at {}", path, width));
            browser.Open(Address(path));
            EXPECT_EQ(browser.Run("return window.innerWidth"), std::to_string(width));
            EXPECT_EQ(browser.Run("return document.documentElement.scrollWidth - window.innerWidth"), "0");
            EXPECT_EQ(
                browser.RunText(
                    "return Promise.all([...document.querySelectorAll('a[href]')].map(a => "
                    "fetch(a.getAttribute('href')).then(r => r.ok ? '' : a.outerHTML))).then(all => all.join(''))"),
                "");
        }
    }
}

TEST_F(PageInBrowser, IsFreshAndKeepsWhatTheReaderHasOpened) {
    const std::string records = "return document.querySelectorAll('.tile b')[2].textContent";
    Send("Disks", "NO ERROR");
    browser.Open(Address("/"));
    EXPECT_EQ(browser.RunText(records), "1");
    browser.Run("document.getElementById('tracks-table').open = true; document.querySelector('.strip a').focus()");
    Send("Disks", "NO ERROR");
    EXPECT_EQ(browser.RunText("return refresh().then(() => document.querySelectorAll('.tile b')[2].textContent)"), "2");
    EXPECT_EQ(browser.Run("return document.getElementById('tracks-table').open"), "true");
    EXPECT_EQ(browser.RunText("return document.activeElement.textContent"), "LAB1 Disks");
    server.reset();
    EXPECT_THAT(browser.RunText("return refresh().then(() => document.querySelector('[role=status]').textContent)"),
                testing::HasSubstr("the server does not answer"));
}

}  // namespace

}  // namespace kv::lab::test
