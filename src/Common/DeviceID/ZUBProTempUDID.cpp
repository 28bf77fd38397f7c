#include "Common/DeviceID/ZUBProTempUDID.h"

#include "Platform/Digest.h"
#include "Platform/MacAddress.h"

std::optional<zub::Data> GetMACAddress() {
    return zub::MacAddress::primary();
}

std::optional<std::string> GetMACAddressDisplayString() {
    return zub::MacAddress::displayString(GetMACAddress());
}

std::string ZUBProTempUDID::getTempUDID() {
    return tempUDIDForDisplayString(GetMACAddressDisplayString());
}

std::string ZUBProTempUDID::tempUDIDForDisplayString(const std::optional<std::string>& displayString) {
    const std::string bytes = displayString.value_or(std::string());
    return zub::Digest::hex(zub::Digest::sha1(bytes.data(), bytes.size()));
}
