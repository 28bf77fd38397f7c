// ZUBEventJournal: the crash-safe record of every event the library accepted and
// the collector has not yet acknowledged.
//
// The journal is a directory of segment files (format in ZUBJournalFormat.h),
// written append-only: an Add record when an event is filed, a Retire record
// when events are acknowledged or dropped for good. Records are gathered in a
// buffer and handed to the kernel in one write() by flushWrites(), which the
// caller runs as soon as it has finished the work at hand (and which runs by
// itself once 64 KiB wait): from then on a crash or kill of the process loses
// nothing. A background thread makes the data durable with fdatasync at most
// `syncInterval` after it was written (the window a power cut can cost).
//
// Space: segments are deleted oldest first once nothing in them is live. When
// the files would exceed the budget, the oldest segment is compacted (its live
// records copied forward) if that frees enough room, or else dropped with the
// events it holds, which the caller counts and reports.
//
// Each live event is in one of three places: in memory (the store's
// dictionaries hold it), overflow (on disk only, brought back oldest first as
// memory frees up) or parked (on disk only, brought back at the next start).
//
// Not synchronised: the caller (the report pipeline) serialises every call under
// the event store's lock. Only the sync thread runs beside it, on a duplicate of
// the active segment's descriptor.
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>
#include <ZUBCocoa/ZUBValue.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class ZUBEventJournal {
public:
    enum class Place : std::uint8_t { Memory, Overflow, Parked, Dead };

    /// A live event found at open: its journal sequence number and identity key.
    struct LiveEntry {
        std::uint64_t seq = 0;
        std::string md5;
    };
    /// Events dropped to keep within the budget.
    struct Dropped {
        std::vector<std::uint64_t> inMemory;  ///< seqs the caller must remove from memory
        std::uint64_t count = 0;              ///< every dropped event, wherever it was
    };
    /// An event read back from disk.
    struct Restored {
        std::uint64_t seq = 0;
        std::shared_ptr<ZUBProEvent> event;
    };

    ZUBEventJournal(std::string directory, std::uint64_t budgetBytes, std::chrono::milliseconds syncInterval);
    ~ZUBEventJournal();
    ZUBEventJournal(const ZUBEventJournal&) = delete;
    ZUBEventJournal& operator=(const ZUBEventJournal&) = delete;

    /// Reads the segments (cutting torn tails, skipping damaged records) and starts
    /// a new active segment. Every live event starts out parked; `live` lists them
    /// oldest first. False (logged) when the directory cannot be used.
    bool open(std::vector<LiveEntry>& live, std::uint64_t& unreportedDrops);

    /// Appends the event in the given place; its seq, or nothing when it could not
    /// be written (the caller then keeps the event in memory).
    std::optional<std::uint64_t> append(const ZUBProEvent& event, Place place, Dropped& dropped);
    /// Marks events acknowledged or dropped for good.
    void retire(const std::vector<std::uint64_t>& seqs);
    /// Moves a live event between memory, overflow and parked.
    void setPlace(std::uint64_t seq, Place place);
    /// Reads back the oldest overflow event (now in memory); nothing when none is left.
    std::optional<Restored> takeOverflow();
    /// Reads back a parked or overflow event by seq (now in memory).
    std::optional<Restored> restore(std::uint64_t seq);
    /// Records the count of dropped events not yet reported.
    void recordDrops(std::uint64_t unreported);
    /// Hands the buffered records to the kernel; false (logged once) when the
    /// write fails, and the records stay buffered for the next try.
    bool flushWrites();
    /// Makes everything appended so far durable now.
    bool sync();

    void setBudget(std::uint64_t bytes) { budget_ = bytes; }
    void setSyncInterval(std::chrono::milliseconds interval);
    std::size_t overflowCount() const { return overflowCount_; }
    std::size_t liveCount() const { return liveCount_; }
    std::uint64_t diskBytes() const { return totalBytes_; }
    const std::string& directory() const { return directory_; }

private:
    struct Segment {
        std::uint64_t number = 0;
        int fd = -1;
        std::uint64_t bytes = 0;
        std::uint64_t liveBytes = 0;
        std::uint32_t liveCount = 0;
    };
    struct Entry {
        std::uint64_t seq = 0;
        std::uint64_t segment = 0;
        std::uint32_t offset = 0;
        std::uint32_t size = 0;
        Place place = Place::Parked;
    };

    std::string segmentPath(std::uint64_t number) const;
    bool startSegment();
    Segment* findSegment(std::uint64_t number);
    Entry* findEntry(std::uint64_t seq);
    bool write(const zub::Data& record, Dropped* dropped, std::uint64_t& segment, std::uint32_t& offset);
    bool makeRoom(std::size_t need, Dropped* dropped);
    bool reclaimOldest(std::size_t need, Dropped* dropped);
    bool copyForward(Segment& oldest);
    void dropSegmentEvents(const Segment& oldest, Dropped* dropped);
    void deleteOldest();
    void releaseDeadSegments();
    void kill(Entry& entry);
    void trimIndex();
    std::optional<Restored> read(Entry& entry);
    void markDirty();
    void syncLoop();

    const std::string directory_;
    std::uint64_t budget_;
    std::uint64_t segmentSize_;
    std::deque<Segment> segments_;  // oldest first; back() is the active segment
    std::deque<Entry> entries_;     // by seq; dead entries are trimmed from the front
    std::uint64_t nextSeq_ = 1;
    std::uint64_t lastNumber_ = 0;  // the highest segment number used
    std::uint64_t totalBytes_ = 0;
    std::uint64_t liveBytes_ = 0;
    std::size_t liveCount_ = 0;
    std::size_t overflowCount_ = 0;
    std::size_t deadInIndex_ = 0;
    std::uint64_t overflowCursor_ = 0;  // no overflow entry has a lower seq
    bool broken_ = false;
    zub::Data unwritten_;       // records of the active segment not yet written
    bool writeFailing_ = false;  // the last flushWrites() failed

    // The sync thread and what it shares with the writer.
    std::mutex syncMutex_;
    std::condition_variable syncWake_;
    int activeFd_ = -1;                                        // guarded by syncMutex_
    bool dirty_ = false;                                       // guarded by syncMutex_
    bool stopping_ = false;                                    // guarded by syncMutex_
    std::chrono::steady_clock::time_point dirtySince_;         // guarded by syncMutex_
    std::chrono::milliseconds syncInterval_;                   // guarded by syncMutex_
    std::thread syncer_;
};
