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
#include <optional>
#include <string>

namespace {

struct Options {
    std::string collector;
    std::string bundle = "com.example.host";
    std::string appKey = "host-app";
    long first = 0;
    long count = 1;
    bool smart = true;
    bool quit = false;
    std::optional<long> flushSeconds;
};

std::optional<Options> parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--collector" && hasValue) {
            o.collector = argv[++i];
        } else if (arg == "--bundle" && hasValue) {
            o.bundle = argv[++i];
        } else if (arg == "--app-key" && hasValue) {
            o.appKey = argv[++i];
        } else if (arg == "--events" && hasValue) {
            if (std::sscanf(argv[++i], "%ld:%ld", &o.first, &o.count) != 2 || o.count < 0) return std::nullopt;
        } else if (arg == "--flush" && hasValue) {
            long seconds = 0;
            if (std::sscanf(argv[++i], "%ld", &seconds) != 1 || seconds < 0) return std::nullopt;
            o.flushSeconds = seconds;
        } else if (arg == "--no-smart") {
            o.smart = false;
        } else if (arg == "--quit") {
            o.quit = true;
        } else {
            return std::nullopt;
        }
    }
    if (o.collector.empty()) return std::nullopt;
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    const auto options = parse(argc, argv);
    if (!options) {
        std::fprintf(stderr, "usage: %s --collector URL [--bundle ID] [--app-key KEY] [--events FIRST:COUNT] "
                             "[--no-smart] [--quit] [--flush SECONDS]\n", argv[0]);
        return 2;
    }
    zub::setBundleInfo("CFBundleIdentifier", options->bundle);
    zub::setCollectorAddress(options->collector);
    ZUBPro::setSmartReport(options->smart);
    ZUBPro::startWithAppKey(options->appKey);

    ZUBPro::trackPage(options->bundle + ".page", 1);
    for (long n = options->first; n < options->first + options->count; ++n) {
        ZUBPro::trackCustomEvent("host.event", {{"n", options->bundle + "#" + std::to_string(n)}});
    }
    if (options->flushSeconds) {
        const bool delivered = zub::flush(std::chrono::seconds(*options->flushSeconds));
        std::printf("flushed %d\n", delivered ? 1 : 0);
        std::fflush(stdout);
    }
    if (options->quit) ZUBPro::onWillApplicationWillTerminate();
    return 0;
}
