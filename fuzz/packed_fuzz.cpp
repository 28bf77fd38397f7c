// The packed form of an event, as the journal reads it back from disk, on
// arbitrary bytes: an event or nothing, never a crash; an event that comes back
// packs again, and that packs back to the same event.
#include "Model/ZUBEventClasses.h"
#include "Platform/PackedArchive.h"

#include <ZUBCocoa/ZUBProEvent.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    registerEventClasses();
    auto event = zub::packed::unpack<ZUBProEvent>(data, size);
    if (!event) return 0;
    (void)event->toJsonString();
    std::string why;
    const auto again = zub::packed::pack(*event, why);
    if (!again) __builtin_trap();
    auto back = zub::packed::unpack<ZUBProEvent>(again->data(), again->size());
    if (!back) __builtin_trap();
    const auto third = zub::packed::pack(*back, why);
    if (!third || *third != *again) __builtin_trap();
    return 0;
}
