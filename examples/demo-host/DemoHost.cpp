// zub-demo: a sample desktop application that uses ZUBCocoa the way a real host
// does, through the public headers only, and says on stdout what it does.
//
// One run is one launch of the application:
//   1. launch: bundle info, channel, app version, user id, endpoints, debug log;
//      start; read what the server pushed in earlier runs;
//   2. a working session: pages, custom events (immediate, with a duration the
//      host measured, timed by the library), active time, an account and a
//      messenger login;
//   3. the window goes to the background and comes back;
//   4. a little more work, then the application quits.
//
// Reporting: smart reporting is switched off, so the default strategy (8)
// decides alone: events wait in memory and are sent at a start or when the
// application becomes active again. What is recorded after the return is saved
// at quit and sent by the next launch.
//
//   zub-demo [--collector http://127.0.0.1:47800] [--app-key KEY] [--user ID]
//            [--pause-ms 1000] [--debug]
#include <ZUBCocoa/ZUBCocoa.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

namespace {

struct Options {
    std::string collector;  // empty: the endpoints the library was built with
    std::string appKey = "zub-demo-app";
    std::string userID = "user-42";
    int pauseMs = 1000;  // the user's "think time" between steps
    bool debug = false;
};

void say(const std::string& line) {
    std::cout << "zub-demo: " << line << std::endl;
}

void usage(std::ostream& out) {
    out << "usage: zub-demo [--collector URL] [--app-key KEY] [--user ID] [--pause-ms MS] [--debug]\n"
           "  --collector URL  collector address, e.g. http://127.0.0.1:47800 (default: the build's endpoints)\n"
           "  --app-key KEY    application key (default zub-demo-app)\n"
           "  --user ID        the host's user id (default user-42)\n"
           "  --pause-ms MS    the user's pause between steps; page and timer durations grow with it (default 1000)\n"
           "  --debug          the library's debug lines on stderr\n";
}

std::optional<Options> parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= argc) return std::nullopt;
            return std::string(argv[++i]);
        };
        std::optional<std::string> v;
        if (arg == "--debug") {
            o.debug = true;
        } else if (arg == "--help" || arg == "-h") {
            usage(std::cout);
            std::exit(0);
        } else if (arg == "--collector" && (v = value())) {
            o.collector = *v;
        } else if (arg == "--app-key" && (v = value())) {
            o.appKey = *v;
        } else if (arg == "--user" && (v = value())) {
            o.userID = *v;
        } else if (arg == "--pause-ms" && (v = value())) {
            char* end = nullptr;
            const long ms = std::strtol(v->c_str(), &end, 10);
            if (end == v->c_str() || *end != '\0' || ms < 0 || ms > 60000) {
                std::cerr << "zub-demo: --pause-ms takes 0 to 60000\n";
                return std::nullopt;
            }
            o.pauseMs = static_cast<int>(ms);
        } else {
            std::cerr << "zub-demo: unknown or incomplete option " << arg << "\n";
            usage(std::cerr);
            return std::nullopt;
        }
    }
    return o;
}

void pause(const Options& o, double factor = 1.0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int>(o.pauseMs * factor)));
}

std::string text(const zub::Value& v) {
    if (v.is_string()) return v.get<std::string>();
    return v.dump();
}

std::string midOf(const zub::Value& ids) {
    return ids.contains("mid") && ids["mid"].is_string() ? ids["mid"].get<std::string>() : "";
}

// The mid arrives from the identifier server shortly after the first start.
// A real application never waits for it (events wait on their own); the demo
// waits a little so that its output can show the device's identity.
std::string waitForMid(std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    std::string mid = midOf(ZUBPro::getDeviceIDs());
    while (mid.empty() && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        mid = midOf(ZUBPro::getDeviceIDs());
    }
    return mid;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> parsed = parse(argc, argv);
    if (!parsed) return 2;
    const Options& o = *parsed;

    // ---- 1. launch -----------------------------------------------------------
    zub::setBundleInfo("CFBundleIdentifier", "com.example.zubdemo");
    zub::setBundleInfo("CFBundleShortVersionString", "2.1.0");
    ZUBPro::setChannel("website");
    ZUBPro::setCustomAppVersion("2.1.0-demo");
    ZUBPro::setCustomUserID(o.userID);
    ZUBPro::setSmartReport(false);
    if (o.debug) ZUBPro::setDebugEnable(true);
    if (!o.collector.empty()) zub::setCollectorAddress(o.collector);
    const zub::Endpoints endpoints = zub::endpoints();
    say("launch: bundle com.example.zubdemo 2.1.0, channel \"website\", app version \"2.1.0-demo\", user \"" +
        o.userID + "\"" + (o.debug ? ", debug log on" : ""));
    say("reporting to " + endpoints.reportURL + ", registering at " + endpoints.midURL);

    const std::string knownMid = midOf(ZUBPro::getDeviceIDs());
    ZUBPro::startWithAppKey(o.appKey);
    const std::uint64_t session = ZUBPro::getSessionID(false);
    const zub::Value& info = ZUBPro::getMainServicesInfo();
    const bool returning = info.contains(kZUBInfoUserType);
    if (knownMid.empty()) {
        say("started with app key \"" + o.appKey + "\": a new device (no mid yet), session " +
            std::to_string(session));
    } else {
        say("started with app key \"" + o.appKey + "\": a returning device, mid " + knownMid + ", session " +
            std::to_string(session) + "; events saved by the last run are read back and sent");
    }
    say(std::string("user type: ") + (returning ? text(info[kZUBInfoUserType]) + " (returning)" : "new"));

    // What the server pushed in earlier runs; a real application reads its
    // switches once at launch. The first run has none yet.
    const zub::Value greeting = ZUBPro::getOnlineProperty("greeting");
    const zub::Value tipsPage = ZUBPro::getOnlineProperty("tips_page");
    if (text(greeting).empty() && text(tipsPage).empty()) {
        say("online configuration: none held yet (the server's reply will bring it)");
    } else {
        say("online configuration in force: greeting \"" + text(greeting) + "\", tips_page \"" + text(tipsPage) +
            "\"");
    }

    // ---- 2. a working session ---------------------------------------------------
    ZUBPro::trackActiveBegin();
    ZUBPro::trackPageViewBegin("Home");
    ZUBPro::trackCustomEvent("launch", {{"source", "dock"}, {"returning", returning}});
    say("active time begins; page Home opened; custom event \"launch\" {source: dock}");

    if (tipsPage.is_string() && !tipsPage.get<std::string>().empty()) {
        const std::string page = tipsPage.get<std::string>();
        ZUBPro::trackPageViewBegin(page);
        pause(o);
        ZUBPro::trackPageViewEnd(page);
        say("page " + page + " shown because the pushed configuration asks for it, then closed");
    }

    ZUBPro::trackPageViewBegin("Editor");
    ZUBPro::trackCustomEventBegin("export", {{"format", "pdf"}});
    say("page Editor opened; timed event \"export\" {format: pdf} begins");
    pause(o, 1.2);
    ZUBPro::trackCustomEventEnd("export", {{"format", "pdf"}});
    say("timed event \"export\" ends (the library measures its duration)");

    ZUBPro::trackCustomEventDuration("render", {{"pages", 12}}, 3);
    ZUBPro::trackPage("Settings", 12);
    say("custom event \"render\" {pages: 12} with a measured duration of 3 s; page Settings viewed for 12 s");

    const std::string mid = waitForMid(std::chrono::seconds(10));
    say(mid.empty() ? "the device is not registered yet: events keep waiting for a mid"
                    : "the device's mid: " + mid);

    ZUBPro::reportAccount(o.userID + "@example.com", 1001, "email");
    ZUBPro::reportLM(o.userID + ".chat");
    say("account " + o.userID + "@example.com logged in (email); messenger account " + o.userID + ".chat");

    ZUBPro::trackPageViewEnd("Editor");
    ZUBPro::trackPageViewEnd("Home");
    say("pages Editor and Home closed");

    // ---- 3. background and back -------------------------------------------------
    ZUBPro::onWillApplicationResignActive();
    ZUBPro::onWillApplicationEnterBackground();
    say("to the background: unsent events saved to disk");
    pause(o, 0.3);
    ZUBPro::onApplicationDidBecomeActive();
    say("back to the foreground: saved events read back, waiting events sent, session " +
        std::to_string(ZUBPro::getSessionID(false)) + " continued");

    // ---- 4. more work, then quit --------------------------------------------------
    pause(o);
    ZUBPro::trackPageViewBegin("Home");
    pause(o);
    ZUBPro::trackPageViewEnd("Home");
    ZUBPro::trackCustomEvent("quit", {{"reason", "menu"}});
    ZUBPro::trackActiveEnd();
    say("page Home viewed again; custom event \"quit\"; active time ends");

    ZUBPro::onWillApplicationWillTerminate();
    say("quit: the events recorded since the return are saved for the next launch");
    return 0;
}
