// The C example (examples/c-host) against a collector, beside the same calls made
// through the C++ facade against a second collector: both must store the same
// events with the same envelopes. Only what differs between two devices or two
// moments (identifiers, times, session ids, indexes, measured timer durations)
// is masked before the two are compared.
#include "support/ChildProcess.h"
#include "support/CollectorProcess.h"
#include "support/StoredEvents.h"
#include "support/TempHome.h"

#include <ZUBCocoa/ZUBCocoa.h>
#include <ZUBCocoa/ZUBDelivery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

using zubtest::ChildProcess;
using zubtest::CollectorProcess;

namespace {

// What examples/c-host/CHost.c does between its start and its flush, through the C++ facade.
void trackAsTheCExampleDoes(const std::string& collector) {
    zub::setBundleInfo("CFBundleIdentifier", "com.example.c-host");
    zub::setBundleInfo("CFBundleShortVersionString", "1.2");
    zub::setCollectorAddress(collector);
    ZUBPro::setChannel("website");
    ZUBPro::setCustomUserID("user-7");
    ZUBPro::setSmartReport(false);
    ZUBPro::startWithAppKey("c-host-key");

    const zub::Value exportPairs = {{"format", "pdf"}, {"pages", 12}, {"scale", 1.5}, {"color", true}};
    ZUBPro::trackPageViewBegin("editor");
    ZUBPro::trackPageViewEnd("editor");
    ZUBPro::trackPage("settings", 12);
    ZUBPro::trackActiveBegin();
    ZUBPro::trackActiveEnd();
    ZUBPro::trackCustomEvent("export", exportPairs);
    ZUBPro::trackCustomEventDuration("render", exportPairs, 3);
    ZUBPro::trackCustomEvent("search", {{"query", "caf\xc3\xa9"}, {"hits", 3}});
    ZUBPro::trackCustomEvent("launch");
    ZUBPro::trackCustomEventBegin("upload", zub::Value::object());
    ZUBPro::trackCustomEventEnd("upload", zub::Value::object());
    ZUBPro::reportLM("chat-user");
    ZUBPro::reportAccount("user@example.com", 2, "sso");
}

// Values that differ between two devices, two runs or two moments.
const std::set<std::string> kVolatile = {"si", "ts", "ui", "ifv", "ioa", "mid", "idx", "m5"};

// Replaces what may differ by a marker of its JSON type, so that a key that is
// missing or of another type still shows.
zub::Value masked(zub::Value event) {
    auto mask = [](zub::Value& v) { v = std::string("<") + v.type_name() + ">"; };
    for (auto& [key, value] : event.items()) {
        if (kVolatile.contains(key)) mask(value);
    }
    // Durations measured by a timer of the library (not given by the host).
    const bool timed = event.value("pi", "") == "editor" || event.value("et", 0) == 4 || event.value("ei", "") == "upload";
    if (timed && event.contains("du")) mask(event["du"]);
    return event;
}

// The stored events, masked, as sorted JSON texts (batches may arrive in any order).
std::vector<std::string> envelopes(CollectorProcess& collector) {
    std::vector<std::string> out;
    for (const zub::Value& row : collector.storedEvents()) out.push_back(masked(row["event"]).dump());
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

TEST(CHost, StoresTheSameEnvelopesAsTheCppFacade) {
    if (!CollectorProcess::available()) GTEST_SKIP() << "this build has no collector";
    CollectorProcess fromC;
    CollectorProcess fromCpp;
    ASSERT_TRUE(fromC.start()) << fromC.failure();
    ASSERT_TRUE(fromCpp.start()) << fromCpp.failure();

    // The C example runs as its own application on a device of its own.
    const auto home = zubtest::TempHome::makeDir("c-host");
    ChildProcess host({ZUB_C_HOST_PATH, fromC.url("")},
                      {"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / ".config").string(),
                       "XDG_DATA_HOME=" + (home / ".local/share").string()});
    ASSERT_TRUE(host.started());
    host.closeInput();
    EXPECT_EQ(host.readLine(std::chrono::seconds(120)), "flushed 1");
    const auto midLine = host.readLine();
    ASSERT_TRUE(midLine);
    EXPECT_TRUE(midLine->starts_with("mid ") && midLine->size() == 4 + 32) << *midLine;
    ASSERT_EQ(host.wait(), 0);

    trackAsTheCExampleDoes(fromCpp.url(""));
    ASSERT_TRUE(zub::flush(std::chrono::seconds(120)));

    const std::vector<std::string> c = envelopes(fromC);
    const std::vector<std::string> cpp = envelopes(fromCpp);
    // A session, two pages, active time, five custom events, a messenger and an account login.
    ASSERT_EQ(cpp.size(), 11u);
    EXPECT_EQ(c, cpp);
    // The C example's own mid is the one its events carry.
    const auto ofDevice = fromC.storedEvents({"--mid", midLine->substr(4)});
    EXPECT_EQ(ofDevice.size(), c.size());
}
