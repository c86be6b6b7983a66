#include "tests/lab/browser.h"

#include <chrono>
#include <fmt/format.h>
#include <fmt/printf.h>
#include <json-c/json.h>
#include <regex>
#include <stdexcept>

#include "lab/store/record_text.h"

namespace kv::lab::test {

namespace {

constexpr auto pageTimeout = std::chrono::minutes(2);  // beside a busy machine

/// Chromium's sandbox refuses to start for root, and its shared memory is too small in a container.
constexpr const char* newSession =
    R"({"capabilities":{"alwaysMatch":{"browserName":"chrome","timeouts":{"script":120000},
    "goog:loggingPrefs":{"browser":"ALL"},"goog:chromeOptions":{
    "args":["--headless=new","--no-sandbox","--disable-gpu","--disable-dev-shm-usage","--hide-scrollbars",
            "--user-data-dir=%s"]}}}})";

std::string Quoted(const std::string& text) { return PlainJson(Json(JsonText(text)).get()); }

}  // namespace

/// Starts the driver, and gives its port. It takes a free port of IPv6, and ends if somebody has the same one of IPv4.
int Browser::StartDriver() {
    std::smatch port;
    std::string printed;
    const std::regex announcement("started successfully on port (\\d+)");
    for (int triesLeft = 5;; --triesLeft) {
        try {
            driver_.Start("env HOME=$PWD chromedriver --port=0", [&] {
                printed = driver_.Output();
                return std::regex_search(printed, port, announcement);
            });
            return std::stoi(port[1]);
        } catch (const std::runtime_error&) {
            if (triesLeft == 0 || !driver_.Output().ends_with("port not available. Exiting...\n")) throw;
        }
    }
}

Browser::Browser() {
    client_.emplace("127.0.0.1", StartDriver());
    client_->set_read_timeout(pageTimeout);
    client_->set_keep_alive(true);
    client_->set_tcp_nodelay(true);
    const ParsedJson answer =
        ParseJson(Post("/session", fmt::sprintf(newSession, driver_.folder().string() + "/profile")));
    json_object* id = nullptr;
    if (!json_object_object_get_ex(answer.value.get(), "sessionId", &id)) throw std::runtime_error("no session");
    session_ = json_object_get_string(id);
}

Browser::~Browser() { client_->Delete("/session/" + session_); }

std::string Browser::Post(const std::string& path, const std::string& body) {
    const httplib::Result answer = client_->Post(path, body, "application/json");
    if (!answer) throw std::runtime_error("chromedriver does not answer: " + to_string(answer.error()));
    if (answer->status != 200) throw std::runtime_error(answer->body);
    json_object* value = nullptr;
    const ParsedJson parsed = ParseJson(answer->body);
    json_object_object_get_ex(parsed.value.get(), "value", &value);
    return PlainJson(value);
}

std::string Browser::Command(const std::string& name, const std::string& parameters) {
    return Post("/session/" + session_ + "/goog/cdp/execute",
                fmt::format(R"({{"cmd":"{}","params":{}}})", name, parameters));
}

void Browser::SetView(int width, int height, bool dark) {
    Command("Emulation.setDeviceMetricsOverride",
            fmt::format(R"({{"width":{},"height":{},"deviceScaleFactor":1,"mobile":false}})", width, height));
    Command("Emulation.setEmulatedMedia",
            fmt::format(R"({{"features":[{{"name":"prefers-color-scheme","value":"{}"}}]}})", dark ? "dark" : "light"));
}

void Browser::Open(const std::string& address) {
    Post("/session/" + session_ + "/url", fmt::format(R"({{"url":{}}})", Quoted(address)));
}

std::string Browser::Run(const std::string& script) {
    return Post("/session/" + session_ + "/execute/sync", fmt::format(R"({{"script":{},"args":[]}})", Quoted(script)));
}

std::string Browser::RunText(const std::string& script) {
    const ParsedJson text = ParseJson(Run(script));
    return json_object_is_type(text.value.get(), json_type_string) ? json_object_get_string(text.value.get()) : "";
}

void Browser::Tab(std::size_t times) {
    std::string strokes;
    for (std::size_t at = 0; at < times; ++at)
        strokes += fmt::format(R"({}{{"type":"keyDown","value":"\uE004"}},{{"type":"keyUp","value":"\uE004"}})",
                               at > 0 ? "," : "");
    Post("/session/" + session_ + "/actions",
         fmt::format(R"({{"actions":[{{"type":"key","id":"keys","actions":[{}]}}]}})", strokes));
}

std::string Browser::Console() { return Post("/session/" + session_ + "/se/log", R"({"type":"browser"})"); }

std::string Browser::Picture() {
    const ParsedJson answer = ParseJson(Command("Page.captureScreenshot", "{}"));
    json_object* data = nullptr;
    if (!json_object_object_get_ex(answer.value.get(), "data", &data)) throw std::runtime_error("no picture");
    return json_object_get_string(data);
}

}  // namespace kv::lab::test
