#include "Common/DeviceID/ZUBProTempUDID.h"
#include "Platform/MacAddress.h"
#include "support/TempHome.h"

#include <gtest/gtest.h>

#include <fstream>

using zub::MacAddress;

TEST(MacAddress, ReadsTheInterfaceAddressFromTheKernelTree) {
    const auto root = zubtest::TempHome::makeDir("net");
    std::filesystem::create_directories(root / "en0");
    std::filesystem::create_directories(root / "tun0");
    std::filesystem::create_directories(root / "bad0");
    std::ofstream(root / "en0/address") << "00:1c:42:0A:0b:0c\n";
    std::ofstream(root / "tun0/address") << "\n";
    std::ofstream(root / "bad0/address") << "00:1c:4\n";
    MacAddress::setInterfaceRoot(root.string());

    EXPECT_EQ(MacAddress::read("en0"), (zub::Data{0x00, 0x1c, 0x42, 0x0a, 0x0b, 0x0c}));
    EXPECT_EQ(GetMACAddress(), (zub::Data{0x00, 0x1c, 0x42, 0x0a, 0x0b, 0x0c}));
    EXPECT_EQ(GetMACAddressDisplayString(), "00:1c:42:0a:0b:0c");
    EXPECT_EQ(MacAddress::read("tun0"), zub::Data{}) << "an interface without an address";
    EXPECT_EQ(MacAddress::displayString(MacAddress::read("tun0")), std::nullopt);
    EXPECT_FALSE(MacAddress::read("bad0"));
    EXPECT_FALSE(MacAddress::read("eth9"));
    EXPECT_FALSE(MacAddress::read("../en0"));

    std::filesystem::remove_all(root / "en0");
    EXPECT_FALSE(GetMACAddress());
    EXPECT_FALSE(GetMACAddressDisplayString());
    MacAddress::setInterfaceRoot(std::nullopt);
    // The real kernel: loopback always exists and has an all-zero address.
    EXPECT_EQ(MacAddress::read("lo"), zub::Data(6, 0));
}
