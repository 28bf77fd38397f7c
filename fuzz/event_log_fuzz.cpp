// Feeds arbitrary bytes to the event log-file decoder (gzip, then the keyed
// archive of a dictionary of events): it must give events or nothing. Whatever it
// gives must encode and decode again to the same keys.
#include "Dal/ZUBEventDal.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto events = ZUBEventDal::decodeLogfile(zub::Data(data, data + size));
    if (!events || events->empty()) return 0;
    for (const auto& [key, event] : *events) {
        if (!event) __builtin_trap();
        (void)event->toJsonString();
    }
    auto again = ZUBEventDal::decodeLogfile(ZUBEventDal::encodeLogfile(*events));
    if (!again || again->size() != events->size()) __builtin_trap();
    auto a = events->begin();
    for (auto b = again->begin(); b != again->end(); ++a, ++b) {
        if (a->first != b->first) __builtin_trap();
    }
    return 0;
}
