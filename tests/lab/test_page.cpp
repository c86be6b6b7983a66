// The lab's page as a browser shows it.
#include <fmt/format.h>
#include <fmt/printf.h>
#include <gmock/gmock.h>

#include "lab/store/plans.h"
#include "lab/store/requests.h"
#include "tests/lab/browser.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

/// For each of these a page's script is kept from running by itself, or its pauses become short.
constexpr const char* standStill = "window.setTimeout = () => 0";
constexpr const char* hurry = "const pause = setTimeout; window.setTimeout = (act, time) => pause(act, time / 50)";

/// Opens all that can be opened, after a refresh if the page has one. What is wrong with the page's elements then, as
/// text: links that are not answered, anchors without a target, drawings without a name, a page that is too wide.
constexpr const char* faultsOfElements = R"(
return (async () => {
  const faults = [], say = (what, e) => faults.push(what + ': ' + e.outerHTML.slice(0, 200));
  if (window.refresh) await refresh();
  faults.push(document.querySelector('[role=status]')?.textContent);
  document.querySelectorAll('details').forEach(e => { e.open = true; });
  for (const e of document.querySelectorAll('svg:not([aria-hidden=true]):not([aria-label])')) say('nameless', e);
  if (document.querySelectorAll('h1').length !== 1) faults.push('not one h1');
  const wide = document.documentElement.scrollWidth - window.innerWidth;
  if (wide > 0) faults.push('too wide by ' + wide);
  for (const e of document.querySelectorAll('.scroll'))
    if (innerWidth >= 1280 && e.scrollWidth > e.clientWidth) say('cut by ' + (e.scrollWidth - e.clientWidth), e);
  const known = JSON.parse(sessionStorage.known || '{}');
  for (const e of document.querySelectorAll('a[href]')) {
    const link = e.getAttribute('href');
    if (link[0] === '#') { if (!document.querySelector(link)) say('leads nowhere', e); continue; }
    known[link] ??= (await fetch(link)).status;
    if (known[link] !== 200) say(known[link], e);
  }
  sessionStorage.known = JSON.stringify(known);
  return faults.filter(fault => fault).join('\n');
})())";

/// Texts with a contrast below 4.5 to what is behind them, and lines and ticks of drawings with one below 3.
constexpr const char* faultsOfContrast = R"(
const rgba = text => { const [r, g, b, a = 1] = text.match(/[\d.]+/g).map(Number); return [r, g, b, a]; };
const over = (top, below) => [0, 1, 2].map(at => top[at] * top[3] + below[at] * (1 - top[3]));
const behind = e => e ? over(rgba(getComputedStyle(e).backgroundColor), behind(e.parentElement)) : [128, 128, 128];
const light = color => color.map(c => c / 255).map(c => c <= .04045 ? c / 12.92 : ((c + .055) / 1.055) ** 2.4)
  .reduce((sum, c, at) => sum + c * [.2126, .7152, .0722][at], 0);
const faults = [];
let texts = 0;
function look(e, color, least, what) {
  const back = behind(e), [low, high] = [light(over(rgba(color), back)), light(back)].sort((a, b) => a - b);
  const contrast = (high + .05) / (low + .05);
  if (contrast < least) faults.push(contrast.toFixed(2) + ' ' + color + ' ' + what);
}
for (const walk = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT); walk.nextNode();) {
  const e = walk.currentNode.parentElement, text = walk.currentNode.textContent.trim();
  if (text === '' || e.closest('svg, script, style, noscript') || !e.checkVisibility()) continue;
  look(e, getComputedStyle(e).color, 4.5, text);
  ++texts;
}
for (const e of document.querySelectorAll('td[data-title]'))
  if (e.checkVisibility()) look(e, getComputedStyle(e, '::before').color, 4.5, e.dataset.title);
for (const e of document.querySelectorAll('input, select, button'))
  if (e.checkVisibility()) look(e, getComputedStyle(e).color, 4.5, e.outerHTML);
for (const e of document.querySelectorAll('.line')) look(e, getComputedStyle(e).stroke, 3, e.outerHTML);
for (const e of document.querySelectorAll('.tick')) look(e, getComputedStyle(e).fill, 3, e.outerHTML);
if (texts < 8) faults.push('only ' + texts + ' texts');
return faults.join('\n');
)";

/// What can be used and has no name in a browser's tree, which stands at %s, for those who hear the page.
constexpr const char* namelessNodes = R"(
const named = ['link', 'button', 'combobox', 'textbox', 'checkbox', 'DisclosureTriangle', 'image', 'region', 'navigation'];
const nodes = (%s).nodes.filter(node => !node.ignored);
return nodes.filter(node => named.includes(node.role.value) ||
    node.properties?.some(property => property.name === 'focusable' && property.value.value))
  .filter(node => !node.name?.value.trim()).map(node => node.role.value + ' ' + JSON.stringify(node.properties)).join('\n');
)";

/// Notes what the keyboard reaches, and gives how many elements it should.
constexpr const char* startTabs = R"(
window.reached = [];
document.addEventListener('focusin', event => reached.push(event.target));
window.usable = [...document.querySelectorAll('a[href], summary, input, select, button, textarea, [tabindex]')]
  .filter(e => e.tabIndex >= 0 && e.type !== 'hidden' && e.checkVisibility());
return usable.length;
)";
constexpr const char* faultsOfTabs = R"(
return usable.map((e, at) => e === reached[at] ? '' : at + ': ' + e.outerHTML.slice(0, 200) + ' after '
  + reached[at]?.outerHTML.slice(0, 200)).filter(fault => fault)[0] || '';
)";

class PageInBrowser : public Lab {
  protected:
    void SendDisks(const std::string& agent, std::int64_t minutesAgo, int quota) {
        Send(agent, minutesAgo,
             {fmt::format(R"({{ "DATACOLLECTTIME": "@", "ERRORMSG": "NO ERROR",
                 "Disks": [ {{ "Name": "anna", "Quota": "{}" }}, {{ "Name": "/", "FreeSpace": "{}" }} ] }})",
                          quota, quota * 2)});
    }

    /// One of each that a lab can hold.
    void FillTheLab() {
        const std::string octets = ".1.3.6.1.2.1.2.2.1.10";
        for (const int minutesAgo : {4, 3, 1}) {
            SendDisks("LAB1", minutesAgo, 100 + minutesAgo);
            Send("LAB1", minutesAgo,
                 {fmt::format(R"({{ "AGENTKEY": "SW", "STATUS": "SUCCESS", "OID": "{0}", "DATACOLLECTTIME": "@",
                     "{0}": {{ "{0}.2": "{1}" }} }})",
                              octets, 60'000 - minutesAgo * 6000),
                  R"({ "AGENTKEY": "S1", "DATACOLLECTTIME": "@", "OID": ".1.3", "STATUS": "FAILURE" })"});
        }
        Send("LAB1", 2,
             {"", "<b>not JSON", "[1]",
              fmt::format(R"({{ "DATACOLLECTTIME": "@", "ERRORMSG": "{}", "{}": [ ] }})", std::string(300, 'w'),
                          std::string(120, 'N'))});
        for (int at = 2; at <= 12; ++at) SendDisks(fmt::format("LAB{}", at), 2, at);
        Upload(client, "AGENTKEY=LAB1&FILENAME=bad.zip", "no zip");
        KeepStartPlan(store, R"({ "WorkFlows": [ { "wfname": "W", "recordSetName": [ { "Name": "P" } ] } ] })");
        client.Get("/servlets/RegisterAgent?agentKey=AWAITED&agentID=" + std::string(80, 'i'));
        client.Get(
            "/servlets/RegisterAgent?agentKey=LAB1&agentID=web-server-1&agentDNS=web-server-1.example.com&"
            "ipAddress=192.168.200.200&customerName=Demo%20customer&remoteOffice=Demo%20office&"
            "osName=Debian%20GNU/Linux%2012%20(bookworm)");
        Execute(*store.database, "UPDATE agent SET first_contact = 1000 WHERE key = 'LAB1'");
        AddFault(store, {0, "StatusUpdateServlet", FaultKind::status, 503, 1});
        FillTheQueue();
    }

    /// Requests of the states answered and waiting, and a plan.
    void FillTheQueue() {
        const std::string id = AddRequest(store, {"LAB1", "TEST_MONITOR", "", {{"MONITOR_NAME", "Disks"}}});
        client.Get("/servlets/DataAgentHandlerServlet?agentKey=LAB1");
        for (const char* const answer : {"odd", R"({ "ERRORMSG": "", "Disks": [ { "Name": "/" }, { "Name": "b" } ] })"})
            client.Post("/servlets/DataAgentHandlerServlet?agentKey=LAB1&action=TEST_MONITOR&requestId=" + id,
                        WideBytes(answer), "text/plain");
        AddRequest(store, {"LAB1", "TEST_MONITOR", "", {{"WMIQUERY", std::string(200, 'q')}}});
        AddConfiguration(store, "LAB2", "LAB2", MakeArchive({{"queryconf.txt", "{}"}}));
    }

    std::string Address(const std::string& path) const { return server->address() + path.substr(1); }

    void BeforeEachPage(const std::string& script) {
        browser.Command("Page.addScriptToEvaluateOnNewDocument", fmt::format(R"({{"source":"{}"}})", script));
    }

    /// Looks at pages in a wide and in a narrow view, in both schemes of colours.
    void Inspect(const std::vector<std::string>& paths) {
        const std::string none = R"("")";
        BeforeEachPage(standStill);
        for (const int width : {1280, 400}) {
            for (const std::string& path : paths) {
                SCOPED_TRACE(fmt::format("{} at {}", path, width));
                browser.SetView(width, 900);
                browser.Open(Address(path));
                EXPECT_EQ(browser.Run("return window.innerWidth"), std::to_string(width));
                EXPECT_EQ(browser.Run(faultsOfElements), none);
                EXPECT_EQ(browser.Run(faultsOfContrast), none);
                const std::string tree = browser.Command("Accessibility.getFullAXTree", "{}");
                EXPECT_EQ(browser.Run(fmt::sprintf(namelessNodes, tree)), none);
                browser.Tab(std::stoul(browser.Run(startTabs)));
                EXPECT_EQ(browser.Run(faultsOfTabs), none);
                browser.SetView(width, 900, true);
                EXPECT_EQ(browser.Run(faultsOfContrast), none) << "in the dark";
                const std::string said = browser.Console();
                EXPECT_TRUE(said == "[]" || path.starts_with("/nothing")) << said;
            }
        }
    }

    Browser browser;
};

TEST_F(PageInBrowser, IsForAllReaders) {
    FillTheLab();
    Inspect({"/", "/?range=1w&agent=LAB1&failed=1", "/?agent=nobody", "/records", "/requests", "/agents",
             "/plot?member=anna%20Quota", "/plot?agent=LAB1&member=anna%20Quota",
             "/plot?member=.1.3.6.1.2.1.2.2.1.10.2", "/record/2", "/record/3", "/record/10", "/record/11",
             "/record/13"});
}

TEST_F(PageInBrowser, IsForAllReadersOfAnEmptyLab) {
    Inspect({"/", "/records", "/requests", "/agents", "/plot?member=x", "/nothing/%3Cb%3E%FF" + std::string(80, 'n')});
}

TEST_F(PageInBrowser, ColoursWhatFailed) {
    FillTheLab();
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"/record/13", "div.fields > span", "ERRORMSG www"},
        {"/requests", "article > .bad", "answered: failed"},
        {"/requests", "summary", "answered at"},
    };
    const char* const isBad = R"(
        const e = [...document.querySelectorAll('%s')].find(e => e.textContent.startsWith('%s'));
        document.body.style.color = 'var(--bad)';
        return getComputedStyle(e.lastElementChild ?? e).color === getComputedStyle(document.body).color;)";
    for (const auto& [path, selector, start] : rows) {
        browser.Open(Address(path));
        EXPECT_EQ(browser.Run(fmt::sprintf(isBad, selector, start)), "true") << path;
    }
}

TEST_F(PageInBrowser, IsFreshAndKeepsWhatTheReaderHasOpened) {
    const std::string records = "document.querySelectorAll('.tile b')[2].textContent";
    const std::string spoken = "document.querySelector('[role=status]').textContent";
    const std::string focused = "return document.activeElement.textContent";
    SendDisks("LAB1", 2, 1);
    browser.Open(Address("/"));
    EXPECT_EQ(browser.RunText("return " + records), "1");
    browser.Run("document.getElementById('tracks-table').open = true; document.querySelector('.strip a').focus()");
    SendDisks("LAB1", 1, 1);
    EXPECT_EQ(browser.RunText("return refresh().then(() => " + records + " + " + spoken + ")"), "2");
    EXPECT_EQ(browser.Run("return document.getElementById('tracks-table').open"), "true");
    EXPECT_EQ(browser.RunText(focused), "LAB1 Disks");
    browser.Run("document.querySelector('#tracks-table > summary').focus()");
    SendDisks("LAB1", 1, 1);
    EXPECT_EQ(browser.RunText("return refresh().then(() => " + records + ")"), "3");
    EXPECT_EQ(browser.RunText(focused), "In numbers");
    EXPECT_EQ(browser.Run("return document.getElementById('clock').closest('[role=status], [aria-live]')"), "null");
    server.reset();
    EXPECT_THAT(browser.RunText("return refresh().then(() => " + spoken + ")"),
                testing::HasSubstr("the server does not answer"));
}

TEST_F(PageInBrowser, IsFreshByItselfWithScriptsAndWithout) {
    const std::string records = "document.querySelectorAll('.tile b')[2].textContent";
    BeforeEachPage(hurry);
    browser.Open(Address("/"));
    SendDisks("LAB1", 1, 1);
    EXPECT_EQ(browser.RunText("return new Promise(done => { const look = () => " + records +
                              " === '1' ? done('seen') : setTimeout(look, 500); look(); })"),
              "seen");
    const std::string again = "return document.querySelector('noscript meta[http-equiv=refresh]')?.content";
    EXPECT_EQ(browser.RunText(again), "") << "its script does that";
    browser.Command("Emulation.setScriptExecutionDisabled", R"({"value":true})");
    browser.Open(Address("/"));
    EXPECT_EQ(browser.RunText(again), "12");
    EXPECT_EQ(browser.RunText("return " + records), "1");
}

}  // namespace

}  // namespace kv::lab::test
