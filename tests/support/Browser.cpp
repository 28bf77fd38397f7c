#include "support/Browser.h"

#include "support/CollectorProcess.h"
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

Browser::Browser(int width, int height) {
    if (const auto why = missing()) {
        failure_ = *why;
        return;
    }
    port_ = freeLoopbackPort();
    driver_ = std::make_unique<ChildProcess>(std::vector<std::string>{kDriver, "--port=" + std::to_string(port_)});
    if (!driver_->started()) {
        failure_ = "cannot start chromedriver";
        return;
    }
    // The driver says when it listens; a busy machine may take a while.
    bool listening = false;
    while (auto line = driver_->readLine(std::chrono::seconds(60))) {
        if (line->find("started successfully") != std::string::npos) {
            listening = true;
            break;
        }
    }
    if (!listening) {
        failure_ = "chromedriver did not start on port " + std::to_string(port_);
        return;
    }
    const std::filesystem::path profile = TempHome::makeDir("chromium-profile-" + std::to_string(port_));
    zub::Value options = {
        {"binary", kChromium},
        {"args",
         {"--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
          "--disable-extensions", "--hide-scrollbars", "--force-device-scale-factor=1", "--lang=en-US",
          "--window-size=" + std::to_string(width) + "," + std::to_string(height),
          "--user-data-dir=" + profile.string()}}};
    const zub::Value request = {
        {"capabilities", {{"alwaysMatch", {{"browserName", "chrome"}, {"goog:chromeOptions", options}}}}}};
    const auto reply = call("POST", "/session", request);
    if (!reply || !reply->contains("sessionId") || !(*reply)["sessionId"].is_string()) {
        if (failure_.empty()) failure_ = "no browser session: " + (reply ? reply->dump() : std::string("no answer"));
        return;
    }
    session_ = (*reply)["sessionId"].get<std::string>();
    // Scripts may wait (waitFor) for up to a few minutes on a busy machine.
    if (!call("POST", "/session/" + session_ + "/timeouts", {{"script", 300000}, {"pageLoad", 120000}})) session_.clear();
}

Browser::~Browser() {
    if (!session_.empty()) call("DELETE", "/session/" + session_, nullptr);
    // The driver ends its browsers when it ends; the ChildProcess destructor kills and reaps it.
}

std::optional<zub::Value> Browser::call(const std::string& method, const std::string& path, const zub::Value& body) {
    httplib::Client client("127.0.0.1", port_);
    client.set_connection_timeout(30, 0);
    client.set_read_timeout(120, 0);
    httplib::Result result = method == "GET"      ? client.Get(path)
                             : method == "DELETE" ? client.Delete(path)
                                                  : client.Post(path, body.dump(), "application/json");
    if (!result) {
        failure_ = "WebDriver " + method + " " + path + ": " + httplib::to_string(result.error());
        return std::nullopt;
    }
    zub::Value reply = zub::Value::parse(result->body, nullptr, false);
    if (reply.is_discarded() || !reply.is_object() || !reply.contains("value")) {
        failure_ = "WebDriver " + method + " " + path + ": unreadable answer " + result->body.substr(0, 200);
        return std::nullopt;
    }
    if (result->status != 200) {
        failure_ = "WebDriver " + method + " " + path + " (" + std::to_string(result->status) + "): " +
                   reply["value"].value("message", result->body.substr(0, 300));
        return std::nullopt;
    }
    return reply["value"];
}

bool Browser::open(const std::string& url) {
    return ok() && call("POST", "/session/" + session_ + "/url", {{"url", url}}).has_value();
}

zub::Value Browser::run(const std::string& script, const zub::Value& args) {
    if (!ok()) return nullptr;
    const auto value = call("POST", "/session/" + session_ + "/execute/sync", {{"script", script}, {"args", args}});
    return value ? *value : zub::Value(nullptr);
}

bool Browser::waitFor(const std::string& script, std::chrono::milliseconds timeout) {
    // The page itself re-checks the condition on its own timer, and the one call
    // returns when it holds or when the bound is reached.
    const std::string wait =
        "const check = () => { " + script + " };\n"
        "const limit = arguments[0];\n"
        "return new Promise((resolve) => {\n"
        "  const start = Date.now();\n"
        "  (function poll() {\n"
        "    let held = false;\n"
        "    try { held = check() === true; } catch (e) { held = false; }\n"
        "    if (held) resolve(true); else if (Date.now() - start > limit) resolve(false); else setTimeout(poll, 25);\n"
        "  })();\n"
        "});";
    return run(wait, zub::Value::array({timeout.count()})) == true;
}

}  // namespace zubtest
