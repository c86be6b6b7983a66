// Takes pictures of a lab's page for its docs: lab_pictures ADDRESS FOLDER
#include <cstdio>
#include <exception>
#include <fmt/format.h>

#include "tests/lab/browser.h"

namespace {

using kv::lab::test::Browser;

struct View {
    const char* name;
    int width;
    int height;
    bool dark;
};

constexpr View views[] = {
    {"lab-page", 1280, 1120, false}, {"lab-page-dark", 1280, 1120, true}, {"lab-page-narrow", 400, 1120, false}};

void Keep(Browser& browser, const std::string& folder, const char* name) {
    const std::string path = fmt::format("{}/{}.png", folder, name);
    FILE* const decoder = popen(fmt::format("base64 -d >'{}'", path).c_str(), "w");
    if (decoder == nullptr) throw std::runtime_error("cannot start base64");
    std::fputs(browser.Picture().c_str(), decoder);
    if (pclose(decoder) != 0) throw std::runtime_error("cannot write " + path);
    fmt::print("{}\n", path);
}

void TakePictures(const std::string& address, const std::string& folder) {
    Browser browser;
    for (const View& view : views) {
        browser.SetView(view.width, view.height, view.dark);
        browser.Open(address);
        Keep(browser, folder, view.name);
    }
    browser.SetView(1280, 700);
    const std::string plot = browser.RunText("return document.querySelector('a[href^=\"/plot\"]')?.href");
    if (plot.empty()) return;
    browser.Open(plot);
    Keep(browser, folder, "lab-plot");
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: lab_pictures ADDRESS FOLDER\n", stderr);
        return 2;
    }
    try {
        TakePictures(arguments[1], arguments[2]);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lab_pictures: %s\n", error.what());
        return 1;
    }
}
