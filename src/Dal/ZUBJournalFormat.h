// The byte layout of the event journal's segment files.
//
// A segment starts with an 8-byte header: "ZUBJ", the format version (16-bit
// little-endian) and two reserved bytes. Versions 1 and 2 are read; version 1
// has no Packed records. Records follow, each framed as
//   u32 payload length | u32 CRC-32 of (kind byte + payload) | u8 kind | payload
// with little-endian integers. Kinds:
//   Add    (1): u64 seq, the event's identity key, its appkey and timeStr (which
//               its archive does not restore) and the keyed archive of the event;
//   Packed (4): the same with the event's packed form (Platform/PackedArchive.h)
//               in place of the keyed archive, for events of plain fields: a
//               fraction of the cost to write and to read back (version 2 on);
//   Retire (2): u32 count, then that many u64 seqs: events acknowledged or
//               dropped for good;
//   Drops  (3): u64 the number of dropped events not yet reported.
// Strings are u16 length + UTF-8 bytes; an absent optional string has length
// 0xFFFF. The reader takes every whole record, skips one whose checksum fails,
// and stops at a tail that is cut short (a torn write).
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zub::journal {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kFrameSize = 9;  // length, checksum, kind
constexpr std::uint16_t kVersion = 2;
constexpr std::uint16_t kOldestVersion = 1;
/// No record is larger; a bigger length can only be damage.
constexpr std::uint32_t kMaxPayload = 16u << 20;

enum class RecordKind : std::uint8_t { Add = 1, Retire = 2, Drops = 3, Packed = 4 };

struct AddRecord {
    std::uint64_t seq = 0;
    std::string md5;
    std::optional<std::string> appkey;
    std::optional<std::string> timeStr;
    Data archive;
    bool packed = false;  ///< `archive` holds the packed form (a Packed record)
};

Data segmentHeader();
void appendAdd(Data& out, const AddRecord& record);
void appendRetire(Data& out, const std::vector<std::uint64_t>& seqs);
void appendDrops(Data& out, std::uint64_t count);

/// One whole record as the reader found it: where it starts in the segment, its
/// size with the frame, its kind and payload.
struct RecordView {
    std::size_t offset = 0;
    std::size_t size = 0;
    RecordKind kind = RecordKind::Add;
    const std::uint8_t* payload = nullptr;
    std::size_t payloadSize = 0;
};

struct ScanResult {
    bool headerValid = false;
    std::size_t validEnd = 0;       ///< end of the last whole record; the rest is a torn tail
    std::size_t skippedRecords = 0;  ///< records dropped for a bad checksum or unknown kind
};

/// Walks a segment's bytes, calling `visit` for every whole record with a valid
/// checksum, in file order. Never reads outside [data, data + size).
ScanResult scanSegment(const std::uint8_t* data, std::size_t size, const std::function<void(const RecordView&)>& visit);

/// The payload of an Add or Packed record (`packed` tells which it came from).
std::optional<AddRecord> decodeAdd(const std::uint8_t* payload, std::size_t size, bool packed = false);
std::optional<std::vector<std::uint64_t>> decodeRetire(const std::uint8_t* payload, std::size_t size);
std::optional<std::uint64_t> decodeDrops(const std::uint8_t* payload, std::size_t size);

}  // namespace zub::journal
