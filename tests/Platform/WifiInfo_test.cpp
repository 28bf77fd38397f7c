#include "Platform/WifiInfo.h"

#include <gtest/gtest.h>

#include <vector>

using zub::WifiInfo;

namespace {

std::optional<std::string> ssidOf(const std::vector<std::uint8_t>& ies) {
    return WifiInfo::ssidFromInformationElements(ies.data(), ies.size());
}

}  // namespace

TEST(WifiInfo, NetworkNameFromInformationElements) {
    // Supported rates first, then the SSID "Lab 5", then a vendor element.
    EXPECT_EQ(ssidOf({1, 2, 0x82, 0x84, 0, 5, 'L', 'a', 'b', ' ', '5', 221, 3, 1, 2, 3}), "Lab 5");
    EXPECT_EQ(ssidOf({0, 4, 0xC3, 0xA9, 't', 0xC3}), std::nullopt) << "cut UTF-8 sequence";
    EXPECT_EQ(ssidOf({0, 3, 0xE2, 0x82, 0xAC}), "\xE2\x82\xAC");
    EXPECT_EQ(ssidOf({0, 0}), std::nullopt) << "hidden network";
    EXPECT_EQ(ssidOf({0, 2, 0xC0, 0x80}), std::nullopt) << "overlong form";
    EXPECT_EQ(ssidOf({0, 3, 0xED, 0xA0, 0x80}), std::nullopt) << "surrogate";
    EXPECT_EQ(ssidOf({1, 9, 0x82}), std::nullopt) << "element longer than the data";
    EXPECT_EQ(ssidOf({0, 6, 'a', 'b'}), std::nullopt);
    EXPECT_EQ(ssidOf({}), std::nullopt);
    EXPECT_EQ(WifiInfo::ssidFromInformationElements(nullptr, 4), std::nullopt);

    std::vector<std::uint8_t> longName(33, 'x');
    EXPECT_EQ(WifiInfo::ssidText(longName.data(), longName.size()), std::nullopt);
    EXPECT_EQ(WifiInfo::ssidText(longName.data(), 32), std::string(32, 'x'));

    const std::uint8_t mac[6] = {0x00, 0x1A, 0xFF, 0x0b, 0xc0, 0x09};
    EXPECT_EQ(WifiInfo::bssidText(mac), "00:1a:ff:0b:c0:09");
}
