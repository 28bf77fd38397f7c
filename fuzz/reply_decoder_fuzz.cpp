// Feeds arbitrary bytes to the reply decoder: RC4 deciphering then JSON parsing
// must give a value or nothing, never crash or throw.
#include "Common/Network/ZUBHttp.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto reply = ZUBHttp::getInstance().returnDataToDict(zub::Data(data, data + size));
    if (reply && !reply->is_object() && !reply->is_array()) __builtin_trap();
    return 0;
}
