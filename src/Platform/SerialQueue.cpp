#include "Platform/SerialQueue.h"

#include "Common/ZUBProHelper.h"

#include <future>
#include <pthread.h>

namespace zub {
namespace {

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#else
    std::this_thread::yield();
#endif
}

// The worker holds the lock only to pop a task or to count one done. A submitter
// that finds it taken spins a little instead of sleeping in the kernel, where the
// wake-up alone costs tens of microseconds on the host's thread.
std::unique_lock<std::mutex> lockBriefly(std::mutex& mutex) {
    for (int i = 0; i < 1000; ++i) {
        if (mutex.try_lock()) return std::unique_lock<std::mutex>(mutex, std::adopt_lock);
        cpuRelax();
    }
    return std::unique_lock<std::mutex>(mutex);
}

}  // namespace

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (worker_.joinable()) worker_.join();
}

void SerialQueue::async(Task task) {
    bool wake = false;
    {
        auto lock = lockBriefly(mutex_);
        tasks_.push_back(std::move(task));
        ++submitted_;
        if (!worker_.joinable()) {
            worker_ = std::thread([this] { run(); });
            workerId_ = worker_.get_id();
        }
        wake = workerSleeping_;
        workerSleeping_ = false;
    }
    if (wake) wake_.notify_one();
}

void SerialQueue::sync(const Task& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    async([&task, &done] {
        try {
            task();
        } catch (...) {
            done.set_exception(std::current_exception());
            return;
        }
        done.set_value();
    });
    finished.get();
}

bool SerialQueue::flush(std::chrono::milliseconds timeout) {
    if (isCurrent()) return false;  // it would wait for itself
    std::unique_lock lock(mutex_);
    const std::uint64_t target = submitted_;
    return progress_.wait_for(lock, timeout, [&] { return completed_ >= target; });
}

bool SerialQueue::idle() const {
    std::lock_guard lock(mutex_);
    return completed_ == submitted_;
}

bool SerialQueue::isCurrent() const {
    std::lock_guard lock(mutex_);
    return worker_.joinable() && workerId_ == std::this_thread::get_id();
}

void SerialQueue::run() {
    // Thread names are limited to 15 characters.
    pthread_setname_np(pthread_self(), label_.substr(0, 15).c_str());
    std::unique_lock lock(mutex_);
    for (;;) {
        if (tasks_.empty()) {
            if (stopping_) return;
            workerSleeping_ = true;
            wake_.wait(lock, [&] { return !tasks_.empty() || stopping_; });
            workerSleeping_ = false;
            continue;
        }
        Task task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        try {
            task();
        } catch (const std::exception& e) {
            ZUBProHelper::LogDebug("[ERROR]Task on queue %@ failed: %@", label_, std::string_view(e.what()));
        } catch (...) {
            ZUBProHelper::LogDebug("[ERROR]Task on queue %@ failed", label_);
        }
        task = nullptr;  // release what the task captured before counting it done
        lock.lock();
        ++completed_;
        progress_.notify_all();
    }
}

}  // namespace zub
