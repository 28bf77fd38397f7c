// A short-lived host application for the tests of how a host's run ends: it uses
// the public headers only, as an application outside this tree would, and is
// built against the static library (host_app_helper) and the shared one
// (host_app_shared_helper).
//
//   host_app_helper --collector URL [--bundle ID] [--app-key KEY]
//                   [--events FIRST:COUNT] [--no-smart] [--quit] [--flush SECONDS]
//
// It starts the library, tracks the page "<bundle id>.page" and the custom
// events "host.event" numbered FIRST .. FIRST+COUNT-1 (argument "n" = "<bundle id>#<number>", unique
// across applications and runs), then optionally calls flush (printing
// "flushed 1" or "flushed 0") and the quit handler, which saves what is left
// unsent for the next launch, and returns from main at once, while the
// library's queues may still be working.
#include <ZUBCocoa/ZUBCocoa.h>
#include <ZUBCocoa/ZUBDelivery.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>

int main(int argc, char** argv) {
    std::map<std::string, std::string> o{{"--bundle", "com.example.host"}, {"--app-key", "host-app"}, {"--events", "0:1"}};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--no-smart" || arg == "--quit") {
            o[arg] = "1";
        } else if (arg.rfind("--", 0) == 0 && i + 1 < argc) {
            o[arg] = argv[++i];
        } else {
            o["--collector"] = "";
        }
    }
    long first = 0, count = 0;
    if (o["--collector"].empty() || std::sscanf(o["--events"].c_str(), "%ld:%ld", &first, &count) != 2) {
        std::fprintf(stderr, "usage: %s --collector URL [--bundle ID] [--app-key KEY] [--events FIRST:COUNT] "
                             "[--no-smart] [--quit] [--flush SECONDS]\n", argv[0]);
        return 2;
    }
    const std::string bundle = o["--bundle"];
    zub::setBundleInfo("CFBundleIdentifier", bundle);
    zub::setCollectorAddress(o["--collector"]);
    ZUBPro::setSmartReport(!o.contains("--no-smart"));
    ZUBPro::startWithAppKey(o["--app-key"]);

    ZUBPro::trackPage(bundle + ".page", 1);
    for (long n = first; n < first + count; ++n) {
        ZUBPro::trackCustomEvent("host.event", {{"n", bundle + "#" + std::to_string(n)}});
    }
    if (o.contains("--flush")) {
        const bool delivered = zub::flush(std::chrono::seconds(std::stol(o["--flush"])));
        std::printf("flushed %d\n", delivered ? 1 : 0);
        std::fflush(stdout);
    }
    if (o.contains("--quit")) ZUBPro::onWillApplicationWillTerminate();
    return 0;
}
