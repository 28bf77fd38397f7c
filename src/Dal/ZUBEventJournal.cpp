#include "Dal/ZUBEventJournal.h"

#include "Common/ZUBProHelper.h"
#include "Dal/ZUBJournalFormat.h"
#include "Model/ZUBEventClasses.h"
#include "Platform/FileIO.h"
#include "Platform/PackedArchive.h"

#include <ZUBCocoa/ZUBArchiving.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fmt = zub::journal;
using zub::writeAll;

constexpr const char* kSuffix = ".zjl";
constexpr std::uint64_t kMinSegment = std::uint64_t{64} << 10;
constexpr std::uint64_t kMaxSegment = std::uint64_t{4} << 20;
// Buffered records are handed to the kernel at the latest when this much waits.
constexpr std::size_t kWriteChunk = std::size_t{64} << 10;

std::string_view errorText(int error) {
    return std::strerror(error);
}

bool readAt(int fd, std::uint8_t* data, std::size_t size, std::uint64_t offset) {
    while (size > 0) {
        const ssize_t n = ::pread(fd, data, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<std::size_t>(n);
        offset += static_cast<std::uint64_t>(n);
    }
    return true;
}

void syncDirectory(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

bool makeDirectories(const std::string& path) {
    for (std::size_t i = 1; i <= path.size(); ++i) {
        if (i < path.size() && path[i] != '/') continue;
        const std::string prefix = path.substr(0, i);
        if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
    return true;
}

// Segment numbers are 16 hex digits, so names sort in creation order.
std::optional<std::uint64_t> segmentNumber(const char* name) {
    const std::string_view n(name);
    if (n.size() != 16 + std::strlen(kSuffix) || n.substr(16) != kSuffix) return std::nullopt;
    std::uint64_t value = 0;
    for (char c : n.substr(0, 16)) {
        int digit;
        if (c >= '0' && c <= '9') digit = c - '0';
        else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
        else return std::nullopt;
        value = value << 4 | static_cast<std::uint64_t>(digit);
    }
    return value;
}

std::optional<zub::Data> readWhole(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) return std::nullopt;
    zub::Data data(static_cast<std::size_t>(st.st_size));
    if (!data.empty() && !readAt(fd, data.data(), data.size(), 0)) return std::nullopt;
    return data;
}

}  // namespace

ZUBEventJournal::ZUBEventJournal(std::string directory, std::uint64_t budgetBytes,
                                 std::chrono::milliseconds syncInterval)
    : directory_(std::move(directory)),
      budget_(budgetBytes),
      segmentSize_(std::clamp<std::uint64_t>(budgetBytes / 16, kMinSegment, kMaxSegment)),
      syncInterval_(syncInterval) {}

ZUBEventJournal::~ZUBEventJournal() {
    if (!segments_.empty()) flushWrites();
    {
        std::lock_guard lock(syncMutex_);
        stopping_ = true;
    }
    syncWake_.notify_all();
    if (syncer_.joinable()) syncer_.join();
    for (auto& segment : segments_) {
        if (segment.fd >= 0) ::close(segment.fd);
    }
}

std::string ZUBEventJournal::segmentPath(std::uint64_t number) const {
    char name[32];
    std::snprintf(name, sizeof name, "%016" PRIx64 "%s", number, kSuffix);
    return directory_ + "/" + name;
}

bool ZUBEventJournal::open(std::vector<LiveEntry>& live, std::uint64_t& unreportedDrops) {
    live.clear();
    unreportedDrops = 0;
    if (!makeDirectories(directory_)) {
        ZUBProHelper::LogDebug("[ERROR]journal: cannot create %@: %@", directory_, errorText(errno));
        broken_ = true;
        return false;
    }
    std::vector<std::uint64_t> numbers;
    if (DIR* dir = ::opendir(directory_.c_str())) {
        while (const dirent* e = ::readdir(dir)) {
            if (auto n = segmentNumber(e->d_name)) numbers.push_back(*n);
        }
        ::closedir(dir);
    }
    std::sort(numbers.begin(), numbers.end());
    lastNumber_ = numbers.empty() ? 0 : numbers.back();

    struct Found {
        std::uint64_t segment;
        std::uint32_t offset;
        std::uint32_t size;
        std::string md5;
    };
    std::map<std::uint64_t, Found> found;
    registerEventClasses();
    for (std::uint64_t number : numbers) {
        const std::string path = segmentPath(number);
        const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        std::optional<zub::Data> bytes = fd >= 0 ? readWhole(fd) : std::nullopt;
        if (!bytes) {
            ZUBProHelper::LogDebug("[ERROR]journal: cannot read %@: %@; left aside", path, errorText(errno));
            if (fd >= 0) ::close(fd);
            continue;
        }
        std::size_t damaged = 0;
        const fmt::ScanResult scan = fmt::scanSegment(bytes->data(), bytes->size(), [&](const fmt::RecordView& r) {
            switch (r.kind) {
                case fmt::RecordKind::Add:
                case fmt::RecordKind::Packed:
                    if (auto add = fmt::decodeAdd(r.payload, r.payloadSize)) {
                        found[add->seq] = Found{number, static_cast<std::uint32_t>(r.offset),
                                                static_cast<std::uint32_t>(r.size), std::move(add->md5)};
                        nextSeq_ = std::max(nextSeq_, add->seq + 1);
                    } else {
                        ++damaged;
                    }
                    break;
                case fmt::RecordKind::Retire:
                    if (auto seqs = fmt::decodeRetire(r.payload, r.payloadSize)) {
                        for (std::uint64_t seq : *seqs) found.erase(seq);
                    } else {
                        ++damaged;
                    }
                    break;
                case fmt::RecordKind::Drops:
                    if (auto drops = fmt::decodeDrops(r.payload, r.payloadSize)) unreportedDrops = *drops;
                    break;
            }
        });
        if (!scan.headerValid) {
            ZUBProHelper::LogDebug("[WARN]journal: %@ is not a journal segment (damaged header); removed", path);
            ::close(fd);
            ::unlink(path.c_str());
            continue;
        }
        if (scan.skippedRecords + damaged > 0) {
            ZUBProHelper::LogDebug("[WARN]journal: %@ damaged records skipped in %@", scan.skippedRecords + damaged,
                                   path);
        }
        if (scan.validEnd < bytes->size()) {
            ZUBProHelper::LogDebug("[WARN]journal: torn tail of %@ bytes cut from %@",
                                   static_cast<std::uint64_t>(bytes->size() - scan.validEnd), path);
            if (::ftruncate(fd, static_cast<off_t>(scan.validEnd)) != 0) {
                ZUBProHelper::LogDebug("[ERROR]journal: cannot cut %@: %@", path, errorText(errno));
            }
        }
        segments_.push_back(Segment{number, fd, scan.validEnd, 0, 0});
        totalBytes_ += scan.validEnd;
    }

    for (auto& [seq, f] : found) {
        entries_.push_back(Entry{seq, f.segment, f.offset, f.size, Place::Parked});
        if (Segment* s = findSegment(f.segment)) {
            s->liveBytes += f.size;
            ++s->liveCount;
        }
        liveBytes_ += f.size;
        ++liveCount_;
        live.push_back(LiveEntry{seq, std::move(f.md5)});
    }
    if (!startSegment()) {
        broken_ = true;
        return false;
    }
    releaseDeadSegments();
    syncer_ = std::thread([this] { syncLoop(); });
    return true;
}

bool ZUBEventJournal::startSegment() {
    if (!segments_.empty() && !flushWrites()) return false;
    const std::uint64_t number = ++lastNumber_;
    const std::string path = segmentPath(number);
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
        ZUBProHelper::LogDebug("[ERROR]journal: cannot create %@: %@", path, errorText(errno));
        return false;
    }
    const zub::Data header = fmt::segmentHeader();
    if (!writeAll(fd, header.data(), header.size())) {
        ZUBProHelper::LogDebug("[ERROR]journal: cannot write %@: %@", path, errorText(errno));
        ::close(fd);
        ::unlink(path.c_str());
        return false;
    }
    // The finished segment is made durable before the next one takes over.
    if (!segments_.empty()) ::fdatasync(segments_.back().fd);
    segments_.push_back(Segment{number, fd, header.size(), 0, 0});
    totalBytes_ += header.size();
    syncDirectory(directory_);
    std::lock_guard lock(syncMutex_);
    activeFd_ = fd;
    return true;
}

ZUBEventJournal::Segment* ZUBEventJournal::findSegment(std::uint64_t number) {
    for (auto& s : segments_) {
        if (s.number == number) return &s;
    }
    return nullptr;
}

ZUBEventJournal::Entry* ZUBEventJournal::findEntry(std::uint64_t seq) {
    auto it = std::lower_bound(entries_.begin(), entries_.end(), seq,
                               [](const Entry& e, std::uint64_t s) { return e.seq < s; });
    if (it == entries_.end() || it->seq != seq || it->place == Place::Dead) return nullptr;
    return &*it;
}

bool ZUBEventJournal::write(const zub::Data& record, Dropped* dropped, std::uint64_t& segment,
                            std::uint32_t& offset) {
    if (broken_ || segments_.empty()) return false;
    // While the disk refuses what is buffered, new records are refused too: their
    // events stay in memory, as they would without a journal.
    if (writeFailing_ && !flushWrites()) return false;
    if (!makeRoom(record.size(), dropped)) return false;
    if (segments_.back().bytes + record.size() > segmentSize_ && segments_.back().bytes > fmt::kHeaderSize) {
        if (!flushWrites()) return false;
        if (!startSegment()) {
            broken_ = true;
            return false;
        }
    }
    Segment& active = segments_.back();
    unwritten_.insert(unwritten_.end(), record.begin(), record.end());
    segment = active.number;
    offset = static_cast<std::uint32_t>(active.bytes);
    active.bytes += record.size();
    totalBytes_ += record.size();
    if (unwritten_.size() >= kWriteChunk) flushWrites();
    return true;
}

bool ZUBEventJournal::flushWrites() {
    if (unwritten_.empty() || broken_ || segments_.empty()) return unwritten_.empty();
    Segment& active = segments_.back();
    const std::uint64_t flushed = active.bytes - unwritten_.size();
    if (!writeAll(active.fd, unwritten_.data(), unwritten_.size())) {
        const int error = errno;
        // Cut a partial write so that the retry starts on a record boundary; the
        // records stay buffered (and readable) until it succeeds.
        if (::ftruncate(active.fd, static_cast<off_t>(flushed)) != 0) broken_ = true;
        if (!writeFailing_) {
            ZUBProHelper::LogDebug("[ERROR]journal: write to segment %@ failed: %@", active.number, errorText(error));
        }
        writeFailing_ = true;
        return false;
    }
    unwritten_.clear();
    if (unwritten_.capacity() > 4 * kWriteChunk) unwritten_.shrink_to_fit();
    writeFailing_ = false;
    markDirty();
    return true;
}

bool ZUBEventJournal::makeRoom(std::size_t need, Dropped* dropped) {
    while (totalBytes_ + need > budget_) {
        if (!reclaimOldest(need, dropped)) {
            ZUBProHelper::LogDebug("[WARN]journal: a record of %@ bytes does not fit a budget of %@ bytes",
                                   static_cast<std::uint64_t>(need), budget_);
            return false;
        }
    }
    return true;
}

bool ZUBEventJournal::reclaimOldest(std::size_t need, Dropped* dropped) {
    if (segments_.size() == 1) {
        // Only the active segment is left: start another so the old one can go.
        if (segments_.back().bytes <= fmt::kHeaderSize || !startSegment()) return false;
    }
    Segment& oldest = segments_.front();
    if (oldest.liveCount > 0) {
        // Copying forward pays only when the live data leaves a quarter of the budget free.
        if (liveBytes_ + need + 2 * fmt::kHeaderSize <= budget_ / 4 * 3) {
            if (!copyForward(oldest)) return false;
        } else {
            if (dropped == nullptr) return false;
            dropSegmentEvents(oldest, dropped);
        }
    }
    deleteOldest();
    return true;
}

bool ZUBEventJournal::copyForward(Segment& oldest) {
    if (!flushWrites()) return false;
    auto bytes = readWhole(oldest.fd);
    if (!bytes) {
        ZUBProHelper::LogDebug("[ERROR]journal: cannot read segment %@ to compact it", oldest.number);
        return false;
    }
    const std::uint64_t number = oldest.number;
    for (auto& entry : entries_) {
        if (entry.segment != number || entry.place == Place::Dead) continue;
        if (static_cast<std::uint64_t>(entry.offset) + entry.size > bytes->size()) continue;
        if (segments_.back().bytes + entry.size > segmentSize_ && !startSegment()) return false;
        Segment& active = segments_.back();
        if (!writeAll(active.fd, bytes->data() + entry.offset, entry.size)) {
            ZUBProHelper::LogDebug("[ERROR]journal: compaction write failed: %@", errorText(errno));
            return false;
        }
        Segment* from = findSegment(number);
        from->liveBytes -= entry.size;
        --from->liveCount;
        entry.segment = active.number;
        entry.offset = static_cast<std::uint32_t>(active.bytes);
        active.bytes += entry.size;
        active.liveBytes += entry.size;
        ++active.liveCount;
        totalBytes_ += entry.size;
    }
    // The copies must be durable before the original goes.
    ::fdatasync(segments_.back().fd);
    return true;
}

void ZUBEventJournal::dropSegmentEvents(const Segment& oldest, Dropped* dropped) {
    for (auto& entry : entries_) {
        if (entry.segment != oldest.number || entry.place == Place::Dead) continue;
        if (entry.place == Place::Memory) dropped->inMemory.push_back(entry.seq);
        ++dropped->count;
        kill(entry);
    }
    trimIndex();
}

void ZUBEventJournal::deleteOldest() {
    Segment oldest = segments_.front();
    segments_.pop_front();
    ::close(oldest.fd);
    const std::string path = segmentPath(oldest.number);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        ZUBProHelper::LogDebug("[ERROR]journal: cannot remove %@: %@", path, errorText(errno));
    }
    totalBytes_ -= oldest.bytes;
}

// Segments go oldest first only: a younger segment may hold the Retire records
// of events added in an older one.
void ZUBEventJournal::releaseDeadSegments() {
    while (segments_.size() > 1 && segments_.front().liveCount == 0) deleteOldest();
    // Keep a few segments at most: an old one with little live data left is
    // compacted rather than kept for the sake of one waiting event.
    if (segments_.size() > 4) {
        Segment& oldest = segments_.front();
        if (oldest.liveBytes * 4 < oldest.bytes && liveBytes_ <= budget_ / 2 && copyForward(oldest)) deleteOldest();
    }
}

void ZUBEventJournal::kill(Entry& entry) {
    if (entry.place == Place::Dead) return;
    if (entry.place == Place::Overflow) --overflowCount_;
    if (Segment* s = findSegment(entry.segment)) {
        s->liveBytes -= entry.size;
        --s->liveCount;
    }
    liveBytes_ -= entry.size;
    --liveCount_;
    entry.place = Place::Dead;
    ++deadInIndex_;
}

void ZUBEventJournal::trimIndex() {
    while (!entries_.empty() && entries_.front().place == Place::Dead) {
        entries_.pop_front();
        --deadInIndex_;
    }
    if (deadInIndex_ > 4096 && deadInIndex_ > liveCount_) {
        std::erase_if(entries_, [](const Entry& e) { return e.place == Place::Dead; });
        deadInIndex_ = 0;
    }
}

std::optional<std::uint64_t> ZUBEventJournal::append(const ZUBProEvent& event, Place place, Dropped& dropped) {
    if (broken_ || !event.md5()) return std::nullopt;
    fmt::AddRecord add;
    add.seq = nextSeq_;
    add.md5 = *event.md5();
    add.appkey = event.appkey();
    add.timeStr = event.timeStr();
    // The packed form where the event allows it (every class of the library's
    // own does); the keyed archive for a class that nests objects.
    std::string why;
    if (auto packed = zub::packed::pack(event, why)) {
        add.archive = std::move(*packed);
        add.packed = true;
    } else {
        add.archive = zub::KeyedArchiver::archivedDataWithRootObject(event);
        if (add.archive.empty()) return std::nullopt;
    }
    zub::Data record;
    fmt::appendAdd(record, add);
    std::uint64_t segment = 0;
    std::uint32_t offset = 0;
    if (!write(record, &dropped, segment, offset)) return std::nullopt;
    ++nextSeq_;
    entries_.push_back(Entry{add.seq, segment, offset, static_cast<std::uint32_t>(record.size()), place});
    Segment* s = findSegment(segment);
    s->liveBytes += record.size();
    ++s->liveCount;
    liveBytes_ += record.size();
    ++liveCount_;
    if (place == Place::Overflow) ++overflowCount_;
    return add.seq;
}

void ZUBEventJournal::retire(const std::vector<std::uint64_t>& seqs) {
    if (seqs.empty() || broken_) return;
    std::vector<std::uint64_t> live;
    for (std::uint64_t seq : seqs) {
        if (Entry* e = findEntry(seq)) {
            live.push_back(seq);
            kill(*e);
        }
    }
    if (live.empty()) return;
    zub::Data record;
    fmt::appendRetire(record, live);
    std::uint64_t segment = 0;
    std::uint32_t offset = 0;
    if (!write(record, nullptr, segment, offset)) {
        ZUBProHelper::LogDebug("[WARN]journal: %@ acknowledged events not recorded; they may be sent again",
                               static_cast<std::uint64_t>(live.size()));
    }
    trimIndex();
    releaseDeadSegments();
}

void ZUBEventJournal::setPlace(std::uint64_t seq, Place place) {
    Entry* e = findEntry(seq);
    if (e == nullptr || place == Place::Dead || e->place == place) return;
    if (e->place == Place::Overflow) --overflowCount_;
    if (place == Place::Overflow) {
        ++overflowCount_;
        overflowCursor_ = std::min(overflowCursor_, seq);
    }
    e->place = place;
}

std::optional<ZUBEventJournal::Restored> ZUBEventJournal::read(Entry& entry) {
    Segment* s = findSegment(entry.segment);
    zub::Data bytes(entry.size);
    std::optional<Restored> out;
    bool haveBytes = false;
    if (s == &segments_.back() && entry.offset >= s->bytes - unwritten_.size()) {
        const std::size_t at = entry.offset - (s->bytes - unwritten_.size());
        haveBytes = at + entry.size <= unwritten_.size();
        if (haveBytes) std::copy_n(unwritten_.begin() + static_cast<std::ptrdiff_t>(at), entry.size, bytes.begin());
    } else if (s != nullptr) {
        haveBytes = readAt(s->fd, bytes.data(), bytes.size(), entry.offset);
    }
    if (haveBytes) {
        zub::Data framed = fmt::segmentHeader();
        framed.insert(framed.end(), bytes.begin(), bytes.end());
        fmt::scanSegment(framed.data(), framed.size(), [&](const fmt::RecordView& r) {
            if (r.kind != fmt::RecordKind::Add && r.kind != fmt::RecordKind::Packed) return;
            auto add = fmt::decodeAdd(r.payload, r.payloadSize, r.kind == fmt::RecordKind::Packed);
            if (!add || add->seq != entry.seq) return;
            auto event = add->packed
                             ? zub::packed::unpack<ZUBProEvent>(add->archive.data(), add->archive.size())
                             : zub::KeyedUnarchiver::unarchiveObjectWithData<ZUBProEvent>(add->archive);
            if (!event) return;
            // The archive leaves these out on purpose; the journal brings the
            // event back as it was filed.
            event->setMd5(add->md5);
            event->setAppkey(add->appkey);
            event->setTimeStr(add->timeStr);
            out = Restored{entry.seq, std::move(event)};
        });
    }
    if (!out) {
        ZUBProHelper::LogDebug("[ERROR]journal: event %@ cannot be read back; dropped", entry.seq);
        kill(entry);
        return std::nullopt;
    }
    if (entry.place == Place::Overflow) --overflowCount_;
    entry.place = Place::Memory;
    return out;
}

std::optional<ZUBEventJournal::Restored> ZUBEventJournal::takeOverflow() {
    while (overflowCount_ > 0) {
        auto it = std::lower_bound(entries_.begin(), entries_.end(), overflowCursor_,
                                   [](const Entry& e, std::uint64_t s) { return e.seq < s; });
        while (it != entries_.end() && it->place != Place::Overflow) ++it;
        if (it == entries_.end()) {
            overflowCount_ = 0;  // cannot happen while the count is kept right
            break;
        }
        overflowCursor_ = it->seq;
        if (auto restored = read(*it)) return restored;
    }
    return std::nullopt;
}

std::optional<ZUBEventJournal::Restored> ZUBEventJournal::restore(std::uint64_t seq) {
    Entry* e = findEntry(seq);
    if (e == nullptr) return std::nullopt;
    return read(*e);
}

void ZUBEventJournal::recordDrops(std::uint64_t unreported) {
    zub::Data record;
    fmt::appendDrops(record, unreported);
    std::uint64_t segment = 0;
    std::uint32_t offset = 0;
    write(record, nullptr, segment, offset);
}

bool ZUBEventJournal::sync() {
    if (segments_.empty()) return false;
    if (!flushWrites()) return false;
    {
        std::lock_guard lock(syncMutex_);
        dirty_ = false;
    }
    return ::fdatasync(segments_.back().fd) == 0;
}

void ZUBEventJournal::setSyncInterval(std::chrono::milliseconds interval) {
    std::lock_guard lock(syncMutex_);
    syncInterval_ = interval;
}

void ZUBEventJournal::markDirty() {
    bool wake = false;
    {
        std::lock_guard lock(syncMutex_);
        if (!dirty_) {
            dirty_ = true;
            dirtySince_ = std::chrono::steady_clock::now();
            wake = true;
        }
    }
    if (wake) syncWake_.notify_one();
}

// Group commit: the first write after a sync opens a window of syncInterval;
// one fdatasync at its end covers everything written in it.
void ZUBEventJournal::syncLoop() {
    std::unique_lock lock(syncMutex_);
    for (;;) {
        syncWake_.wait(lock, [&] { return dirty_ || stopping_; });
        if (stopping_) return;
        syncWake_.wait_until(lock, dirtySince_ + syncInterval_, [&] { return stopping_ || !dirty_; });
        if (stopping_) return;
        if (!dirty_) continue;  // the writer synced meanwhile
        dirty_ = false;
        const int fd = ::dup(activeFd_);
        lock.unlock();
        if (fd >= 0) {
            ::fdatasync(fd);
            ::close(fd);
        }
        lock.lock();
    }
}
