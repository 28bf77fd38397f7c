// Feeds arbitrary bytes to the event journal's segment reader: it must take
// whole records or nothing, never read outside the bytes, and every Add record
// it decodes must encode again to the same bytes; the events they hold (keyed
// archives or packed forms) are restored without a crash.
#include "Dal/ZUBJournalFormat.h"
#include "Model/ZUBEventClasses.h"
#include "Platform/PackedArchive.h"

#include <ZUBCocoa/ZUBArchiving.h>
#include <ZUBCocoa/ZUBProEvent.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace fmt = zub::journal;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    registerEventClasses();
    const fmt::ScanResult scan = fmt::scanSegment(data, size, [&](const fmt::RecordView& r) {
        if (r.offset + r.size > size || r.payload + r.payloadSize > data + size) __builtin_trap();
        switch (r.kind) {
            case fmt::RecordKind::Add:
            case fmt::RecordKind::Packed: {
                auto add = fmt::decodeAdd(r.payload, r.payloadSize, r.kind == fmt::RecordKind::Packed);
                if (!add) return;
                zub::Data again;
                fmt::appendAdd(again, *add);
                if (again.size() != r.size || std::memcmp(again.data(), data + r.offset, r.size) != 0) {
                    __builtin_trap();
                }
                auto event = add->packed
                                 ? zub::packed::unpack<ZUBProEvent>(add->archive.data(), add->archive.size())
                                 : zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProEvent>(add->archive);
                if (event) (void)event->toJsonString();
                break;
            }
            case fmt::RecordKind::Retire:
                (void)fmt::decodeRetire(r.payload, r.payloadSize);
                break;
            case fmt::RecordKind::Drops:
                (void)fmt::decodeDrops(r.payload, r.payloadSize);
                break;
        }
    });
    if (scan.validEnd > size) __builtin_trap();
    return 0;
}
