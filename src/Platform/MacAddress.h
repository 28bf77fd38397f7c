// The hardware (MAC) address of the machine's primary network interface, the
// Linux counterpart of the address of "en0" on the original platform.
//
// "en0" is the primary interface: an interface named en0 when there is one, else
// the first physical interface, in ifindex order, that has a hardware address
// (not all zeros). Physical means: not loopback, backed by a device (sysfs
// "device" entry; virtual interfaces such as veth, tun, docker bridges have none)
// and not a bridge. Everything is read from sysfs, /sys/class/net below the
// movable root of HostInfo, so a test presents any machine with a FakeRoot; where
// sysfs is not mounted (some containers) the kernel is asked for "en0" directly
// (SIOCGIFHWADDR). A machine without such an interface has no address, silently.
// Unexpected failures of the kernel request are written to standard error.
// Thread-safe.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <optional>
#include <string>

namespace zub {

class MacAddress {
public:
    /// The name of the primary interface (see above); std::nullopt when none.
    static std::optional<std::string> primaryInterfaceName();
    /// The address of the primary interface; std::nullopt when there is none.
    static std::optional<Data> primary();

    /// The address bytes of one interface (6 on Ethernet-like interfaces; empty
    /// when the interface has none); std::nullopt when there is no such interface.
    static std::optional<Data> read(const std::string& interfaceName);

    /// Lower-case hex bytes joined by ":" ("00:1c:42:0a:0b:0c"); std::nullopt
    /// for absent or empty data.
    static std::optional<std::string> displayString(const std::optional<Data>& address);

    /// Parses the sysfs text form ("00:1c:42:0a:0b:0c\n"); "" gives empty data;
    /// std::nullopt for anything malformed.
    static std::optional<Data> parseAddressText(const std::string& text);

    /// Replaces the interface directory (by default /sys/class/net below
    /// HostInfo's root) with `directory`; std::nullopt restores the default.
    static void setInterfaceRoot(const std::optional<std::string>& directory);
};

}  // namespace zub
