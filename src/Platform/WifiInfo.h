// WifiInfo: the network name (SSID) and base-station address (BSSID) of the
// default wireless interface, read from the kernel's nl80211 interface.
//
// The default wireless interface is the station-mode (client) interface with the
// lowest interface index. A value is absent when there is no wireless support, no
// such interface, no association, or the name is empty or not UTF-8 text.
// current() asks the kernel over a fresh generic-netlink socket, waits at most
// kReplyTimeoutMs for each reply and closes the socket before returning.
// Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace zub {

struct WifiNetwork {
    std::optional<std::string> ssid;
    /// Six lower-case hex pairs joined by ':' ("a0:b1:c2:d3:e4:f5").
    std::optional<std::string> bssid;
};

class WifiInfo {
public:
    static constexpr int kReplyTimeoutMs = 500;

    static WifiNetwork current();

    // Decoding helpers, exposed for the platform variants and their tests.
    /// The SSID element (id 0) of 802.11 information elements, as text.
    static std::optional<std::string> ssidFromInformationElements(const std::uint8_t* ies, std::size_t size);
    /// SSID octets as text: std::nullopt when empty, longer than 32 octets or not UTF-8.
    static std::optional<std::string> ssidText(const std::uint8_t* octets, std::size_t size);
    static std::string bssidText(const std::uint8_t (&mac)[6]);
};

}  // namespace zub
