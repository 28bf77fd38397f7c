#include "Common/DeviceID/ZUBProOpenUDID.h"
#include "Platform/UserDefaults.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

#include <gtest/gtest.h>

#include <regex>

using zub::Pasteboard;
using zub::Value;

namespace {

const std::string kA = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
const std::string kB = "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb";

std::string slotName(int n) {
    return "org.OpenUDID.slot." + std::to_string(n);
}

void putSlot(int n, const Value& dict) {
    auto pb = Pasteboard::pasteboardWithName(slotName(n));
    ASSERT_TRUE(pb);
    ZUBProOpenUDID::_setDict(dict, *pb);
}

Value readSlot(int n) {
    auto pb = Pasteboard::existingPasteboardWithName(slotName(n));
    return pb ? ZUBProOpenUDID::_getDictFromPasteboard(*pb) : Value();
}

Value slotRecord(const std::string& oid, const std::string& app) {
    return Value{{"OpenUDID", oid}, {"OpenUDID_appUID", app}, {"OpenUDID_createdTS", 1.6e9}};
}

bool isOpenUDID(const std::string& s) {
    return std::regex_match(s, std::regex("[0-9a-f]{40}"));
}

zub::UserDefaults& defaults() {
    return zub::UserDefaults::standard();
}

}  // namespace

TEST(ZUBProOpenUDID, FirstCallOnAnEmptyDeviceCreatesRecordAndClaimsSlotZero) {
    zubtest::ManualClock clock;
    ZUBProOpenUDIDError error;
    const std::string id = ZUBProOpenUDID::valueWithError(&error);
    EXPECT_TRUE(isOpenUDID(id)) << id;
    EXPECT_EQ(error.domain, "org.OpenUDID");
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(error.description(), "OpenUDID succesfully retrieved");

    const auto record = defaults().objectForKey("OpenUDID");
    ASSERT_TRUE(record);
    EXPECT_EQ((*record)["OpenUDID"], id);
    EXPECT_EQ((*record)["OpenUDID_slot"], slotName(0));
    EXPECT_EQ((*record)["OpenUDID_createdTS"], 1.7e9);
    EXPECT_EQ((*record)["OpenUDID_appUID"].get<std::string>().size(), 36u);
    EXPECT_FALSE(defaults().objectForKey("OpenUDID_appUID")) << "the fresh application id stays in the record";
    EXPECT_EQ(readSlot(0), *record);

    ZUBProOpenUDIDError second;
    EXPECT_EQ(ZUBProOpenUDID::valueWithError(&second), id);
    EXPECT_EQ(second.code, 0);
    EXPECT_EQ(second.description(), "OpenUDID in cache from first call");

    // Fresh identifiers (32 digits of an MD5 and 8 of a random number) differ.
    const std::string fresh = ZUBProOpenUDID::_generateFreshOpenUDID();
    EXPECT_TRUE(isOpenUDID(fresh)) << fresh;
    EXPECT_NE(fresh, ZUBProOpenUDID::_generateFreshOpenUDID());
}

TEST(ZUBProOpenUDID, MostFrequentSlotIdentifierWinsAndGarbageCountsAsFree) {
    {
        auto pb = Pasteboard::pasteboardWithName(slotName(0));
        ASSERT_TRUE(pb);
        ASSERT_TRUE(pb->setData(zub::Data{0xde, 0xad, 0xbe, 0xef}, "org.OpenUDID"));
    }
    putSlot(1, slotRecord(kB, "app-1"));
    putSlot(2, slotRecord(kA, "app-2"));
    putSlot(3, slotRecord(kA, "app-3"));
    putSlot(4, slotRecord(kA, "app-4"));

    zubtest::LogCapture log;
    ZUBProOpenUDIDError error;
    EXPECT_EQ(ZUBProOpenUDID::valueWithError(&error), kA);
    EXPECT_EQ(error.code, 0);
    EXPECT_TRUE(log.contains("KeyedUnarchiver")) << "the unreadable slot is logged";

    // The unreadable slot was the first free one: it now mirrors the new record.
    const auto record = defaults().objectForKey("OpenUDID");
    ASSERT_TRUE(record);
    EXPECT_EQ((*record)["OpenUDID"], kA);
    EXPECT_EQ((*record)["OpenUDID_slot"], slotName(0));
    EXPECT_EQ(readSlot(0), *record);
    EXPECT_EQ(readSlot(1)["OpenUDID"], kB) << "other applications' slots are left alone";
}

TEST(ZUBProOpenUDID, LocalRecordWinsOverSlotsButReportsTheDiscrepancy) {
    defaults().setObject("OpenUDID", Value{{"OpenUDID", kB}, {"OpenUDID_appUID", "mine"}});
    putSlot(0, slotRecord(kA, "x"));
    putSlot(1, slotRecord(kA, "y"));
    ZUBProOpenUDIDError error;
    EXPECT_EQ(ZUBProOpenUDID::valueWithError(&error), kB);
    EXPECT_EQ(error.code, 2);
    EXPECT_EQ(error.description(),
              "Found a discrepancy between stored OpenUDID (reliable) and redundant copies; one of the apps on the "
              "device is most likely corrupting the OpenUDID protocol");
    // Slot 2 was free and the record named no slot: it is claimed with the local identifier.
    EXPECT_EQ(readSlot(2)["OpenUDID"], kB);
    EXPECT_EQ((*defaults().objectForKey("OpenUDID"))["OpenUDID_slot"], slotName(2));
}

TEST(ZUBProOpenUDID, OptOutGivesZerosUntilOptedInAgain) {
    zubtest::ManualClock clock;
    const std::string id = ZUBProOpenUDID::value();
    ZUBProOpenUDID::setOptOut(true);
    EXPECT_EQ((*defaults().objectForKey("OpenUDID"))["OpenUDID_optOutTS"], 1.7e9);

    ZUBProOpenUDIDError error;
    EXPECT_EQ(ZUBProOpenUDID::valueWithError(&error), std::string(40, '0'));
    EXPECT_EQ(error.code, 1);
    EXPECT_TRUE(std::regex_match(error.description(),
                                 std::regex("Application with unique id [0-9A-F-]{36} is opted-out from OpenUDID as "
                                            "of 2023-11-14 22:13:20 \\+0000")))
        << error.description();

    ZUBProOpenUDID::setOptOut(false);
    EXPECT_FALSE(defaults().objectForKey("OpenUDID")->contains("OpenUDID_optOutTS"));
    EXPECT_EQ(ZUBProOpenUDID::valueWithError(&error), id);
    EXPECT_EQ(error.code, 0);
}

TEST(ZUBProOpenUDID, OwnSlotCanClearAnOptOut) {
    defaults().setObject("OpenUDID_appUID", "app-1");
    defaults().setObject("OpenUDID", Value{{"OpenUDID", kA},
                                           {"OpenUDID_appUID", "app-1"},
                                           {"OpenUDID_slot", slotName(0)},
                                           {"OpenUDID_optOutTS", 1.6e9}});
    putSlot(0, slotRecord(kA, "app-1"));  // no opt-out date in this application's slot
    ZUBProOpenUDIDError error;
    EXPECT_EQ(ZUBProOpenUDID::valueWithError(&error), kA);
    EXPECT_EQ(error.code, 0);
}

TEST(ZUBProOpenUDID, OwnSlotNeverCreatesAnOptOutAndADifferentFreeSlotIsNotClaimed) {
    const Value record{{"OpenUDID", kA}, {"OpenUDID_appUID", "app-1"}, {"OpenUDID_slot", slotName(2)}};
    defaults().setObject("OpenUDID_appUID", "app-1");
    defaults().setObject("OpenUDID", record);
    ASSERT_TRUE(defaults().synchronize());
    putSlot(0, slotRecord(kA, "other"));
    Value mine = slotRecord(kA, "app-1");
    mine["OpenUDID_optOutTS"] = 1.6e9;
    putSlot(2, mine);

    ZUBProOpenUDIDError error;
    EXPECT_EQ(ZUBProOpenUDID::valueWithError(&error), kA);
    EXPECT_EQ(error.code, 0);
    EXPECT_FALSE(Pasteboard::existingPasteboardWithName(slotName(1))) << "slot 1 is free but not ours";
    EXPECT_EQ(*defaults().objectForKey("OpenUDID"), record) << "the record is not re-saved";
    EXPECT_EQ(readSlot(2), mine);
}
