// A serial task queue: tasks run one after another, in submission order, on one
// worker thread that belongs to the queue and is named by its label. The worker
// starts with the first task.
//
// async() costs the caller a lock and a deque push; it wakes the worker (one
// futex call) only when the worker is asleep, so submitting to a busy queue makes
// no system call. A task that throws is logged and the queue goes on.
//
// Queues owned by the library's singletons are never destroyed. A queue that is
// destroyed runs what was already submitted, then joins its worker; destroying a
// queue from its own worker is not allowed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace zub {

class SerialQueue {
public:
    using Task = std::function<void()>;

    explicit SerialQueue(std::string label);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }

    /// Queues the task and returns at once.
    void async(Task task);

    /// Runs the task on the queue and waits for it (after everything queued before).
    /// Called from the queue's own worker, it runs the task in place.
    void sync(const Task& task);

    /// Waits until every task submitted before this call has finished, or the
    /// timeout passes. True when the queue caught up. For tests and for a host that
    /// is terminating.
    bool flush(std::chrono::milliseconds timeout);

    /// True when called from this queue's worker thread.
    bool isCurrent() const;

    /// True when no task is waiting or running at this instant. Unlike flush(),
    /// this also counts tasks that a finishing task has just submitted (tests use
    /// it to wait until a chain of tasks has run out).
    bool idle() const;

private:
    void run();

    const std::string label_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;      // the worker waits here for tasks
    std::condition_variable progress_;  // flush() waits here for completions
    std::deque<Task> tasks_;            // guarded by mutex_
    std::uint64_t submitted_ = 0;       // guarded by mutex_
    std::uint64_t completed_ = 0;       // guarded by mutex_
    bool workerSleeping_ = false;       // guarded by mutex_
    bool stopping_ = false;             // guarded by mutex_
    std::thread worker_;                // started under mutex_ by the first async()
    std::thread::id workerId_;          // set once under mutex_
};

}  // namespace zub
