#include "support/Browser.h"

#include "support/TempHome.h"

#include <httplib.h>

#include <unistd.h>

namespace zubtest {
namespace {

constexpr const char* kChromium = "/usr/bin/chromium";
constexpr const char* kDriver = "/usr/bin/chromedriver";

}  // namespace

std::optional<std::string> Browser::missing() {
    for (const char* program : {kChromium, kDriver}) {
        if (::access(program, X_OK) != 0) {
            return std::string(program) + " is not installed (scripts/deps installs chromium and chromium-driver)";
        }
    }
    return std::nullopt;
}

Browser::Browser()
    : driver_(missing() ? std::vector<std::string>{} : std::vector<std::string>{kDriver, "--port=" + std::to_string(port_)}) {
    // The driver says when it listens; a busy machine may take a while.
    bool listening = false;
    while (auto line = driver_.readLine(std::chrono::seconds(60))) {
        if ((listening = line->find("started successfully") != std::string::npos)) break;
    }
    if (!listening) {
        failure_ = missing().value_or("chromedriver did not start");
        return;
    }
    const std::string profile = TempHome::makeDir("chromium-profile-" + std::to_string(port_)).string();
    const zub::Value options = {
        {"binary", kChromium},
        {"args",
         {"--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
          "--disable-extensions", "--hide-scrollbars", "--force-device-scale-factor=1", "--lang=en-US",
          "--window-size=1280,1000", "--user-data-dir=" + profile}}};
    const auto reply = call("/session", {{"capabilities", {{"alwaysMatch", {{"browserName", "chrome"},
                                                                            {"goog:chromeOptions", options}}}}}});
    if (!reply || !reply->contains("sessionId")) {
        if (failure_.empty()) failure_ = "no browser session: " + reply->dump();
        return;
    }
    session_ = (*reply)["sessionId"].get<std::string>();
    // Scripts may wait (waitFor) for up to a few minutes on a busy machine.
    if (!call("/timeouts", {{"script", 300000}, {"pageLoad", 120000}})) session_.clear();
}

Browser::~Browser() {
    // The driver ends its browsers when it ends; the ChildProcess destructor kills and reaps it.
    if (ok()) call("", nullptr);
}

std::optional<zub::Value> Browser::call(const std::string& path, const zub::Value& body) {
    const std::string where = session_.empty() ? path : "/session/" + session_ + path;
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(120, 0);
    const httplib::Result result =
        body.is_null() ? client.Delete(where) : client.Post(where, body.dump(), "application/json");
    const zub::Value reply = result ? zub::Value::parse(result->body, nullptr, false) : zub::Value();
    if (!result || result->status != 200 || !reply.is_object() || !reply.contains("value")) {
        failure_ = "WebDriver " + where + ": " +
                   (result ? std::to_string(result->status) + " " + result->body.substr(0, 300)
                           : httplib::to_string(result.error()));
        return std::nullopt;
    }
    return reply["value"];
}

zub::Value Browser::run(const std::string& script, const zub::Value& args) {
    const auto value = ok() ? call("/execute/sync", {{"script", script}, {"args", args}}) : std::nullopt;
    return value.value_or(nullptr);
}

bool Browser::waitFor(const std::string& script) {
    // The page itself re-checks the condition on its own timer, and the one call
    // returns when it holds or when a minute has passed.
    return run("const check = () => { " + script + " }; const start = Date.now();\n"
               "return new Promise((resolve) => (function poll() {\n"
               "  let held = false; try { held = check() === true; } catch (e) {}\n"
               "  if (held || Date.now() - start > 60000) resolve(held); else setTimeout(poll, 25);\n"
               "})());") == true;
}

}  // namespace zubtest
