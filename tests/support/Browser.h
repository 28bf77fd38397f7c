// A headless Chromium driven through chromedriver's WebDriver protocol (JSON over
// HTTP on loopback), for tests that look at a page as a person would.
//
//   if (auto why = zubtest::Browser::missing()) GTEST_SKIP() << *why;
//   zubtest::Browser browser;
//   ASSERT_TRUE(browser.ok()) << browser.failure();
//   browser.open(url);
//   browser.waitFor("return document.body.dataset.state === 'ready'");
//   zub::Value n = browser.run("return document.title");
//
// The driver and the browser run as child processes with a profile under the
// test's HOME; the destructor ends the session and the driver.
#pragma once

#include "support/ChildProcess.h"

#include <ZUBCocoa/ZUBValue.h>

#include <optional>
#include <string>

namespace zubtest {

class Browser {
public:
    /// Why no browser can run here (Chromium or its driver not installed), or nothing.
    static std::optional<std::string> missing();

    /// Starts the driver and a headless browser of 1280 x 1000 pixels.
    Browser();
    ~Browser();
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

    bool ok() const { return !session_.empty(); }
    const std::string& failure() const { return failure_; }

    /// Loads `url` and waits for the page's load event.
    bool open(const std::string& url) { return ok() && call("/url", {{"url", url}}); }
    /// Runs `script` (a function body: `return ...`) in the page with `args`; its
    /// value, or null with failure() set when it threw.
    zub::Value run(const std::string& script, const zub::Value& args = zub::Value::array());
    /// Runs `script` until it returns true, for at most a minute; false at the end of it.
    bool waitFor(const std::string& script);

private:
    /// POSTs `body` to the session's `path` (the whole path when there is no session
    /// yet; DELETE when `body` is null): the answer's "value", nothing on failure.
    std::optional<zub::Value> call(const std::string& path, const zub::Value& body);

    int port_ = freeLoopbackPort();
    ChildProcess driver_;
    std::string session_;
    std::string failure_;
};

}  // namespace zubtest
