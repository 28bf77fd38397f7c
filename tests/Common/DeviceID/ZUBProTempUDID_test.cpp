#include "Common/DeviceID/ZUBProTempUDID.h"
#include "Platform/MacAddress.h"
#include "support/FakeRoot.h"

#include <gtest/gtest.h>

using zub::MacAddress;

TEST(ZUBProTempUDID, HashesTheDisplayStringOfThePrimaryInterface) {
    const zub::Data mac{0x00, 0x1c, 0x42, 0x0a, 0x0b, 0x0c};
    const auto display = MacAddress::displayString(mac);
    EXPECT_EQ(display, "00:1c:42:0a:0b:0c");
    EXPECT_EQ(ZUBProTempUDID::tempUDIDForDisplayString(display), "5d4891bb680e3bfcb402e19180d5082b0c7821f2");
    EXPECT_EQ(MacAddress::displayString(zub::Data{0xff, 0x0}), "ff:00");

    // No physical interface: the SHA-1 of the empty input, still 40 characters.
    zubtest::FakeRoot root;
    root.write("/sys/class/net/lo/address", "00:00:00:00:00:00\n");
    root.write("/sys/class/net/lo/type", "772\n");
    EXPECT_EQ(ZUBProTempUDID::getTempUDID(), "da39a3ee5e6b4b0d3255bfef95601890afd80709");

    // A machine whose wired port is not called en0 still has a hardware identifier.
    root.write("/sys/class/net/enp3s0/address", "00:1c:42:0a:0b:0c\n");
    root.write("/sys/class/net/enp3s0/ifindex", "2\n");
    root.mkdir("/sys/class/net/enp3s0/device");
    EXPECT_EQ(ZUBProTempUDID::getTempUDID(), "5d4891bb680e3bfcb402e19180d5082b0c7821f2");
}
