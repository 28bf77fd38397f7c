#include "Common/DeviceID/ZUBProTempUDID.h"
#include "Platform/MacAddress.h"
#include "support/FakeRoot.h"

#include <gtest/gtest.h>

using zub::MacAddress;

namespace {

// One interface directory of sysfs as the kernel presents it.
void addInterface(const zubtest::FakeRoot& root, const std::string& name, int ifindex, const std::string& address,
                  bool device, int type = 1) {
    const std::string dir = "/sys/class/net/" + name;
    root.write(dir + "/address", address + "\n");
    root.write(dir + "/ifindex", std::to_string(ifindex) + "\n");
    root.write(dir + "/type", std::to_string(type) + "\n");
    if (device) root.mkdir(dir + "/device");
}

}  // namespace

TEST(MacAddress, ReadsTheInterfaceAddressFromTheKernelTree) {
    zubtest::FakeRoot root;
    addInterface(root, "en0", 2, "00:1c:42:0A:0b:0c", true);
    addInterface(root, "tun0", 3, "", false);
    addInterface(root, "bad0", 4, "00:1c:4", true);

    EXPECT_EQ(MacAddress::read("en0"), (zub::Data{0x00, 0x1c, 0x42, 0x0a, 0x0b, 0x0c}));
    EXPECT_EQ(GetMACAddressDisplayString(), "00:1c:42:0a:0b:0c");
    EXPECT_EQ(MacAddress::displayString(zub::Data{0xff, 0x0}), "ff:00");
    EXPECT_EQ(MacAddress::read("tun0"), zub::Data{}) << "an interface without an address";
    EXPECT_EQ(MacAddress::displayString(MacAddress::read("tun0")), std::nullopt);
    EXPECT_FALSE(MacAddress::read("bad0"));
    EXPECT_FALSE(MacAddress::read("eth9"));
    EXPECT_FALSE(MacAddress::read("../en0"));
}

TEST(MacAddress, PrimaryIsEn0ElseTheFirstPhysicalInterfaceWithAnAddressByIndex) {
    {
        // A laptop: loopback, a docker bridge and a veth come first by index, an
        // Ethernet port without cable has a zero address, and the directory lists
        // Wi-Fi before the wired port whose index is lower.
        zubtest::FakeRoot root("laptop");
        addInterface(root, "lo", 1, "00:00:00:00:00:00", false, 772);
        addInterface(root, "docker0", 2, "02:42:ac:11:00:01", true);
        root.mkdir("/sys/class/net/docker0/bridge");
        addInterface(root, "veth9", 3, "aa:bb:cc:dd:ee:01", false);
        addInterface(root, "enp0s1", 4, "00:00:00:00:00:00", true);
        addInterface(root, "wlp3s0", 7, "3c:22:fb:00:00:07", true);
        addInterface(root, "enp2s0", 5, "3c:22:fb:00:00:05", true);
        EXPECT_EQ(MacAddress::primaryInterfaceName(), "enp2s0");
        EXPECT_EQ(GetMACAddressDisplayString(), "3c:22:fb:00:00:05");

        // An interface named en0 wins whatever it is.
        addInterface(root, "en0", 9, "02:00:00:00:00:09", false);
        EXPECT_EQ(MacAddress::primaryInterfaceName(), "en0");
        EXPECT_EQ(GetMACAddress(), (zub::Data{0x02, 0, 0, 0, 0, 0x09}));
    }
    {
        // A container: loopback and a veth only.
        zubtest::FakeRoot root("container");
        addInterface(root, "lo", 1, "00:00:00:00:00:00", false, 772);
        addInterface(root, "eth0", 12, "02:42:ac:11:00:02", false);
        EXPECT_EQ(MacAddress::primaryInterfaceName(), std::nullopt);
        EXPECT_EQ(GetMACAddress(), std::nullopt);
        EXPECT_EQ(ZUBProTempUDID::getTempUDID(), "da39a3ee5e6b4b0d3255bfef95601890afd80709") << "SHA-1 of nothing";
    }
    // The real kernel: loopback always exists and has an all-zero address.
    EXPECT_EQ(MacAddress::read("lo"), zub::Data(6, 0));
}
