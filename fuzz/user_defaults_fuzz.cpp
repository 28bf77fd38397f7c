// The user-defaults file loader on arbitrary bytes: a dictionary or nothing,
// never a crash; a decoded dictionary writes back to bytes that decode equal.
#include "Platform/UserDefaults.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const zub::Data bytes(data, data + size);
    auto dictionary = zub::UserDefaults::parseFileContents(bytes);
    if (!dictionary) return 0;
    if (!dictionary->is_object()) std::abort();
    const zub::Data again = zub::UserDefaults::serializeFileContents(*dictionary);
    auto reread = zub::UserDefaults::parseFileContents(again);
    // NaN never compares equal to itself, so compare the encodings.
    if (!reread || zub::UserDefaults::serializeFileContents(*reread) != again) std::abort();
    return 0;
}
