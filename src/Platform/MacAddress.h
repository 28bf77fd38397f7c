// The hardware (MAC) address of a network interface, read from the kernel: the
// interface's sysfs "address" file, or the SIOCGIFHWADDR request where sysfs is
// not mounted. The library asks for the interface "en0" only; on a machine
// without an interface of that name the answer is nothing, silently. Unexpected
// failures of the kernel request are written to standard error. Thread-safe.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <optional>
#include <string>

namespace zub {

class MacAddress {
public:
    /// The address bytes (6 on Ethernet-like interfaces; empty when the interface
    /// has none); std::nullopt when there is no such interface.
    static std::optional<Data> read(const std::string& interfaceName);

    /// Lower-case hex bytes joined by ":" ("00:1c:42:0a:0b:0c"); std::nullopt
    /// for absent or empty data.
    static std::optional<std::string> displayString(const std::optional<Data>& address);

    /// Parses the sysfs text form ("00:1c:42:0a:0b:0c\n"); "" gives empty data;
    /// std::nullopt for anything malformed.
    static std::optional<Data> parseAddressText(const std::string& text);

    /// The directory that holds one entry per interface (default
    /// "/sys/class/net"); tests point it at a directory they prepare. std::nullopt
    /// restores the default.
    static void setInterfaceRoot(const std::optional<std::string>& root);
};

}  // namespace zub
