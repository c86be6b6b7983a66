// A headless Chromium that looks at a page, driven by WebDriver through Debian's chromedriver.
#pragma once

#include <httplib.h>
#include <optional>
#include <string>

#include "tests/support/linux/child_program.h"

namespace kv::lab::test {

/// Starts with its object and ends with it. All routines throw std::runtime_error with what the browser says.
class Browser {
  public:
    Browser();
    ~Browser();
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

    /// The size of the page's view in CSS pixels, and whether the user prefers dark colours.
    void SetView(int width, int height, bool dark = false);

    /// Returns when the page is loaded.
    void Open(const std::string& address);

    /// The value of a JavaScript function's body as compact JSON, such as "return document.title".
    std::string Run(const std::string& script);

    /// What Run gives as a text, when it is a text.
    std::string RunText(const std::string& script);

    /// Presses the Tab key so many times.
    void Tab(std::size_t times);

    /// What the console of the pages has said since the last call, an array as JSON.
    std::string Console();

    /// What is in the view, as a PNG file in base64.
    std::string Picture();

    /// Runs a command of the DevTools protocol with its parameters, and gives its result, both as JSON.
    std::string Command(const std::string& name, const std::string& parameters);

  private:
    int StartDriver();
    std::string Post(const std::string& path, const std::string& body);

    kv::test::ChildProgram driver_;
    std::optional<httplib::Client> client_;
    std::string session_;
};

}  // namespace kv::lab::test
