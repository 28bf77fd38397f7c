#include "Common/DeviceID/ZUBProTempUDID.h"
#include "Platform/MacAddress.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <fstream>

using zub::MacAddress;

TEST(ZUBProTempUDID, HashesTheDisplayStringOfEn0) {
    const zub::Data mac{0x00, 0x1c, 0x42, 0x0a, 0x0b, 0x0c};
    const auto display = MacAddress::displayString(mac);
    EXPECT_EQ(display, "00:1c:42:0a:0b:0c");
    EXPECT_EQ(ZUBProTempUDID::tempUDIDForDisplayString(display), "5d4891bb680e3bfcb402e19180d5082b0c7821f2");
    EXPECT_EQ(MacAddress::displayString(zub::Data{0xff, 0x0}), "ff:00");

    // No "en0": the SHA-1 of the empty input, still 40 characters.
    const auto root = zubtest::TempHome::makeDir("no-en0");
    MacAddress::setInterfaceRoot(root.string());
    EXPECT_EQ(ZUBProTempUDID::getTempUDID(), "da39a3ee5e6b4b0d3255bfef95601890afd80709");

    std::filesystem::create_directories(root / "en0");
    std::ofstream(root / "en0/address") << "00:1c:42:0a:0b:0c\n";
    EXPECT_EQ(ZUBProTempUDID::getTempUDID(), "5d4891bb680e3bfcb402e19180d5082b0c7821f2");
    MacAddress::setInterfaceRoot(std::nullopt);
}
