// A host application for the journal tests, run as a separate process so that
// a test can kill it or let it end and start it again in the same HOME.
//
//   journal_helper track REPORT_URL MID_URL FIRST BURST BURSTS
//       starts, then tracks BURSTS bursts of BURST custom events "j" with unique
//       {"id": FIRST, FIRST+1, ...}; after each burst it waits until the library
//       has filed the burst and prints "durable LAST_ID"; "done" at the end, then
//       waits for its input to close
//   journal_helper terminate REPORT_URL MID_URL N
//       starts, tracks N events "j" {"id": 0..N-1} (memory holds 100 of them),
//       calls the terminate handler,
//       prints "terminated" and returns from main at once
//   journal_helper deliver REPORT_URL MID_URL
//       starts and flushes; prints "flushed 1" (or 0) and "left N"
#include "Common/ZUBProConfig.h"
#include "Pro/ZUBEventLogic.h"
#include "support/NetNamespace.h"
#include "support/ReportPipeline.h"

#include <ZUBCocoa/ZUBDelivery.h>
#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>

#include <cstdio>
#include <string>

using zubtest::say;

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    const std::string mode = argv[1];
    zub::setBundleInfo("CFBundleIdentifier", "com.example.journal");
    ZUBProConfig::getInstance().setReportURL(std::string(argv[2]));
    ZUBProConfig::getInstance().setMidURL(std::string(argv[3]));
    ZUBPro::setSmartReport(false);  // the strategy alone decides: nothing is sent while tracking
    ZUBPro::startWithAppKey("app-journal");

    if (mode == "track" && argc >= 7) {
        const long first = std::stol(argv[4]);
        const int burst = std::stoi(argv[5]), bursts = std::stoi(argv[6]);
        long id = first;
        for (int b = 0; b < bursts; ++b) {
            for (int i = 0; i < burst; ++i) ZUBPro::trackCustomEvent("j", {{"id", id++}});
            if (!zubtest::settlePipeline()) return 3;
            say("durable " + std::to_string(id - 1));
        }
        say("done");
        // A test that kills it may read its lines later than it writes them: it
        // stays until its input closes, so a kill never finds it gone.
        while (std::getchar() != EOF) {
        }
        return 0;
    }
    if (mode == "terminate" && argc >= 5) {
        zub::DeliveryLimits limits;
        limits.maxEventsInMemory = 100;  // the rest waits on disk
        zub::setDeliveryLimits(limits);
        const long n = std::stol(argv[4]);
        for (long id = 0; id < n; ++id) ZUBPro::trackCustomEvent("j", {{"id", id}});
        ZUBPro::onWillApplicationWillTerminate();
        say("terminated");
        return 0;
    }
    if (mode == "deliver") {
        const bool flushed = zub::flush(std::chrono::minutes(4));
        say(std::string("flushed ") + (flushed ? "1" : "0"));
        say("left " + std::to_string(ZUBEventLogic::getInstance().unacknowledgedCount()));
        return 0;
    }
    return 2;
}
