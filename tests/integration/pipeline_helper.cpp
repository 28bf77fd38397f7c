// A second run of a host application for the report pipeline tests, started with
// the test's HOME so that it finds what the first run stored.
//
//   pipeline_helper config REPORT_URL MID_URL   prints the report strategy before and
//       after the start, tracks one event and prints how many events still wait
//   pipeline_helper save REPORT_URL MID_URL N   starts, registers, tracks N events,
//       prints the waiting keys, enters the background and prints "saved"
//   pipeline_helper load REPORT_URL MID_URL     starts (which reads the saved events
//       back and sends them), prints how many log files remain, activates, prints
//       how many events still wait
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProStore.h"
#include "support/ReportPipeline.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>

namespace {

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

int logFiles() {
    int n = 0;
    for (const char* name : {".toReportEvents.log", ".retryEvents.log"}) {
        if (std::filesystem::exists(ZUBProStore::getInstance().getLogfilePath(name))) ++n;
    }
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    const std::string mode = argv[1];
    zub::setBundleInfo("CFBundleIdentifier", "com.example.pipeline");  // the same application as the test
    ZUBProConfig::getInstance().setReportURL(std::string(argv[2]));
    ZUBProConfig::getInstance().setMidURL(std::string(argv[3]));
    ZUBPro::setSmartReport(false);

    if (mode == "config") {
        // The next run comes later: a run in the same second as the test's own would
        // draw the same session id (it is seeded by the second) and send a session
        // event under the same key, which the collector keeps out as a resend.
        zubtest::SteppingClock later(static_cast<std::int64_t>(std::time(nullptr)) + 10);
        say("strategy before start " + std::to_string(ZUBProConfig::getInstance().reportStrategy()));
        ZUBPro::startWithAppKey("app-cfg");
        say("strategy after start " + std::to_string(ZUBProConfig::getInstance().reportStrategy()));
        ZUBPro::trackCustomEvent("next-run");
        if (!zubtest::settlePipeline()) return 3;
        say("waiting " + std::to_string(zubtest::waitingKeys().size()));
        return 0;
    }
    if (mode == "save" && argc >= 5) {
        ZUBPro::startWithAppKey("app-save");
        if (!zubtest::settlePipeline()) return 3;
        const int n = std::stoi(argv[4]);
        for (int i = 0; i < n; ++i) ZUBPro::trackCustomEvent("saved", {{"n", i}});
        if (!zubtest::settlePipeline()) return 3;
        for (const auto& key : zubtest::waitingKeys()) say(key);
        ZUBPro::onWillApplicationEnterBackground();
        say("saved");
        return 0;
    }
    if (mode == "load") {
        ZUBPro::startWithAppKey("app-save");
        if (!zubtest::settlePipeline()) return 3;
        say("files " + std::to_string(logFiles()));
        ZUBPro::onApplicationDidBecomeActive();
        if (!zubtest::settlePipeline()) return 3;
        say("waiting " + std::to_string(zubtest::waitingKeys().size()));
        return 0;
    }
    return 2;
}
