// The temporary UDID: a hardware-derived identifier, the SHA-1 (40 lower-case
// hex digits) of the display string of the MAC address of "en0", the machine's
// primary interface (zub::MacAddress says which interface that is on Linux).
// A device without one hashes the empty input, so the identifier is still 40
// characters long (da39a3ee...) and the same on every such device.
// Pure apart from reading the interface; any thread.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <optional>
#include <string>

/// The MAC address of "en0" (the primary interface) as bytes, or nothing when there is none.
std::optional<zub::Data> GetMACAddress();
/// The MAC address of "en0" as "00:1c:42:0a:0b:0c" (lower case), or nothing.
std::optional<std::string> GetMACAddressDisplayString();

class ZUBProTempUDID {
public:
    ZUBProTempUDID() = delete;

    /// SHA-1 hex of GetMACAddressDisplayString().
    static std::string getTempUDID();
    /// SHA-1 hex of the UTF-8 bytes of a display string (no string: no bytes).
    static std::string tempUDIDForDisplayString(const std::optional<std::string>& displayString);
};
