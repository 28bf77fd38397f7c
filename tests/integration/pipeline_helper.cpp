// The next run of a host application for the report pipeline tests, started with
// the test's HOME so that it finds what the first run stored.
//
//   pipeline_helper REPORT_URL MID_URL   prints the report strategy before and after
//       the start, tracks one event and prints how many events still wait
#include "Common/ZUBProConfig.h"
#include "support/ReportPipeline.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>

#include <cstdio>
#include <ctime>
#include <string>

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    zub::setBundleInfo("CFBundleIdentifier", "com.example.pipeline");  // the same application as the test
    ZUBProConfig::getInstance().setReportURL(std::string(argv[1]));
    ZUBProConfig::getInstance().setMidURL(std::string(argv[2]));
    ZUBPro::setSmartReport(false);
    // The next run comes later: a run in the same second as the test's own would
    // draw the same session id (it is seeded by the second) and send a session
    // event under the same key, which the collector keeps out as a resend.
    zubtest::SteppingClock later(static_cast<std::int64_t>(std::time(nullptr)) + 10);
    std::printf("strategy before start %d\n", static_cast<int>(ZUBProConfig::getInstance().reportStrategy()));
    ZUBPro::startWithAppKey("app-cfg");
    std::printf("strategy after start %d\n", static_cast<int>(ZUBProConfig::getInstance().reportStrategy()));
    ZUBPro::trackCustomEvent("next-run");
    if (!zubtest::settlePipeline()) return 3;
    std::printf("waiting %zu\n", zubtest::waitingKeys().size());
    return 0;
}
