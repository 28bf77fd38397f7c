#include "Dal/ZUBJournalFormat.h"

#include "Platform/ByteCursor.h"

#include <zlib.h>

#include <cstring>

namespace zub::journal {
namespace {

constexpr std::uint8_t kMagic[4] = {'Z', 'U', 'B', 'J'};
constexpr std::uint16_t kAbsent = 0xFFFF;

void putU16(Data& out, std::uint16_t v) {
    putLittleEndian(out, v, 2);
}
void putU32(Data& out, std::uint32_t v) {
    putLittleEndian(out, v, 4);
}
void putU64(Data& out, std::uint64_t v) {
    putLittleEndian(out, v, 8);
}
void putString(Data& out, const std::optional<std::string>& s) {
    if (!s || s->size() >= kAbsent) {
        putU16(out, kAbsent);
        return;
    }
    putU16(out, static_cast<std::uint16_t>(s->size()));
    out.insert(out.end(), s->begin(), s->end());
}

std::uint16_t version(const std::uint8_t* header) {
    return static_cast<std::uint16_t>(header[4] | header[5] << 8);
}

std::uint32_t readU32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint32_t checksum(const std::uint8_t* data, std::size_t size) {
    uLong crc = crc32(0L, Z_NULL, 0);
    // zlib takes at most uInt bytes a call; payloads are far below that.
    return static_cast<std::uint32_t>(crc32(crc, data, static_cast<uInt>(size)));
}

// Frames a payload that has been written after 9 placeholder bytes at `start`.
void closeFrame(Data& out, std::size_t start, RecordKind kind) {
    const std::size_t payload = out.size() - start - kFrameSize;
    out[start + 8] = static_cast<std::uint8_t>(kind);
    const std::uint32_t crc = checksum(out.data() + start + 8, payload + 1);
    for (int i = 0; i < 4; ++i) {
        out[start + i] = static_cast<std::uint8_t>(payload >> (8 * i));
        out[start + 4 + i] = static_cast<std::uint8_t>(crc >> (8 * i));
    }
}

std::size_t openFrame(Data& out) {
    const std::size_t start = out.size();
    out.resize(start + kFrameSize);
    return start;
}

// A bounds-checked reader over one payload.
class Reader : public ByteCursor {
public:
    using ByteCursor::ByteCursor;
    std::uint64_t u(int bytes) { return le(bytes); }
    /// A u16-length string; 0xFFFF is an absent one.
    std::optional<std::string> string() {
        const auto length = static_cast<std::uint16_t>(le(2));
        if (!ok() || length == kAbsent) return std::nullopt;
        const std::string_view text = view(length);
        if (!ok()) return std::nullopt;
        return std::string(text);
    }
};

}  // namespace

Data segmentHeader() {
    Data out(kMagic, kMagic + 4);
    putU16(out, kVersion);
    putU16(out, 0);
    return out;
}

void appendAdd(Data& out, const AddRecord& record) {
    const std::size_t start = openFrame(out);
    putU64(out, record.seq);
    putString(out, record.md5);
    putString(out, record.appkey);
    putString(out, record.timeStr);
    putU32(out, static_cast<std::uint32_t>(record.archive.size()));
    out.insert(out.end(), record.archive.begin(), record.archive.end());
    closeFrame(out, start, record.packed ? RecordKind::Packed : RecordKind::Add);
}

void appendRetire(Data& out, const std::vector<std::uint64_t>& seqs) {
    const std::size_t start = openFrame(out);
    putU32(out, static_cast<std::uint32_t>(seqs.size()));
    for (std::uint64_t seq : seqs) putU64(out, seq);
    closeFrame(out, start, RecordKind::Retire);
}

void appendDrops(Data& out, std::uint64_t count) {
    const std::size_t start = openFrame(out);
    putU64(out, count);
    closeFrame(out, start, RecordKind::Drops);
}

ScanResult scanSegment(const std::uint8_t* data, std::size_t size,
                       const std::function<void(const RecordView&)>& visit) {
    ScanResult result;
    if (size < kHeaderSize || std::memcmp(data, kMagic, 4) != 0 || version(data) < kOldestVersion ||
        version(data) > kVersion) {
        return result;
    }
    const std::uint8_t lastKind = version(data) >= 2 ? 4 : 3;
    result.headerValid = true;
    std::size_t offset = kHeaderSize;
    result.validEnd = offset;
    while (size - offset >= kFrameSize) {
        const std::uint32_t length = readU32(data + offset);
        if (length > kMaxPayload || length > size - offset - kFrameSize) break;  // cut short: a torn tail
        const std::uint32_t crc = readU32(data + offset + 4);
        const std::size_t recordSize = kFrameSize + length;
        const std::uint8_t kind = data[offset + 8];
        if (checksum(data + offset + 8, length + 1) != crc || kind < 1 || kind > lastKind) {
            ++result.skippedRecords;
        } else {
            visit(RecordView{offset, recordSize, static_cast<RecordKind>(kind), data + offset + kFrameSize, length});
        }
        offset += recordSize;
        result.validEnd = offset;
    }
    return result;
}

std::optional<AddRecord> decodeAdd(const std::uint8_t* payload, std::size_t size, bool packed) {
    Reader in(payload, size);
    AddRecord record;
    record.packed = packed;
    record.seq = in.u(8);
    auto md5 = in.string();
    record.appkey = in.string();
    record.timeStr = in.string();
    const auto archiveSize = static_cast<std::size_t>(in.u(4));
    record.archive = in.bytes(archiveSize);
    if (!in.ok() || !in.atEnd() || !md5 || md5->empty()) return std::nullopt;
    record.md5 = std::move(*md5);
    return record;
}

std::optional<std::vector<std::uint64_t>> decodeRetire(const std::uint8_t* payload, std::size_t size) {
    Reader in(payload, size);
    const auto count = static_cast<std::size_t>(in.u(4));
    if (!in.ok() || count != (size - 4) / 8 || (size - 4) % 8 != 0) return std::nullopt;
    std::vector<std::uint64_t> seqs(count);
    for (auto& seq : seqs) seq = in.u(8);
    if (!in.ok()) return std::nullopt;
    return seqs;
}

std::optional<std::uint64_t> decodeDrops(const std::uint8_t* payload, std::size_t size) {
    if (size != 8) return std::nullopt;
    Reader in(payload, size);
    return in.u(8);
}

}  // namespace zub::journal
