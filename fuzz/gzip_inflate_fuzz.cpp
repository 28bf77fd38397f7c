// Feeds arbitrary bytes to the gzip/zlib inflater: it must return data or nothing.
// Whatever it returns must compress and inflate back to itself.
#include "Common/ZUBProHelper.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto inflated = ZUBProHelper::uncompressGZip(zub::Data(data, data + size));
    if (inflated && !inflated->empty()) {
        zub::Data again;
        if (ZUBProHelper::GZip(*inflated, &again) != 0) __builtin_trap();
        auto back = ZUBProHelper::uncompressGZip(again);
        if (!back || *back != *inflated) __builtin_trap();
    }
    return 0;
}
