// Delivery controls: ending a program without losing what it tracked, and the
// limits that keep an offline device's memory and disk bounded.
//
// A long-running application needs none of this: events are sent by the report
// strategy and, between runs, kept in the library's journal. A program that ends
// on its own (a command-line tool, a test) calls flush() before it returns from
// main, so that what it tracked is sent now rather than at its next run:
//
//   ZUBPro::startWithAppKey("your-app-key");
//   ZUBPro::trackCustomEvent("convert", {{"files", 3}});
//   zub::flush(std::chrono::seconds(5));   // waits at most 5 s
//
// The journal: every event the library accepts is appended, on the library's
// queue, to a journal file beside the application's event log files, and retired
// when the collector acknowledges it. After a crash, a kill or a power loss, the
// next start reads back what was not acknowledged. It is written with one
// fdatasync per group of events: at most one group (the events filed in the last
// `syncIntervalMs`, default 200 ms) can be lost to a power cut; a crash or kill of
// the process alone loses nothing that reached the journal.
//
// Limits: at most `maxEventsInMemory` waiting events are held in memory; the rest
// stay in the journal and come back as batches go out. The journal keeps at most
// `journalBudgetBytes` on disk; only when that is full are the oldest events
// dropped. Each drop is counted, written to the debug log and reported to the
// collector as an ordinary custom event named kZUBDroppedEventsID whose argument
// "count" is the number of events dropped.
//
// All functions are thread-safe and never throw.
#pragma once

#include <ZUBCocoa/ZUBExport.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

/// The custom event identifier under which the library reports dropped events.
ZUB_EXPORT extern const char* const kZUBDroppedEventsID;  // "zub_dropped_events"

namespace zub {

/// Files the events still on their way to the library's queue, waits for a
/// registration in progress, runs report cycles until nothing that can be sent
/// now is left (under strategies 1 and 8, and whenever smart reporting would
/// send), and makes the journal durable; returns when done or when `timeout`
/// has passed. True when, on return, every accepted event has been acknowledged
/// by the collector; false when some still wait (no mid yet, the collector or
/// network is down, strategy 5): they are kept and sent by a later run.
/// Call it from the host's thread, never from a library callback.
ZUB_EXPORT bool flush(std::chrono::milliseconds timeout);

/// Bounds on what the library keeps while events cannot be sent.
struct DeliveryLimits {
    std::size_t maxEventsInMemory = 10000;              ///< waiting events held in memory
    std::uint64_t journalBudgetBytes = 64ull << 20;     ///< disk the journal may use
    std::uint32_t syncIntervalMs = 200;                 ///< longest time between two fdatasyncs
    bool journalEnabled = true;                         ///< off: only the background/quit files
};

/// Sets the limits; call before ZUBPro::startWithAppKey (a change later applies
/// from the next filed event on). Values of 0 are refused (logged, nothing changed),
/// except syncIntervalMs, where 0 means a sync after every filed group.
ZUB_EXPORT void setDeliveryLimits(const DeliveryLimits& limits);
/// The limits in force.
ZUB_EXPORT DeliveryLimits deliveryLimits();

/// Events dropped since the process started because the journal was full.
ZUB_EXPORT std::uint64_t droppedEventCount();

}  // namespace zub
