#include "Platform/BlockPool.h"

#include <algorithm>
#include <cstring>
#include <pthread.h>
#include <thread>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define ZUB_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define ZUB_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define ZUB_POISON(p, n) ((void)(p), (void)(n))
#define ZUB_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace zub {
namespace {

// Every pool, so that a fork finds none of their locks held by a thread the child
// does not have: each is taken before the fork and released on both sides.
constexpr std::size_t kMaxPools = 16;
std::atomic<BlockPool*> gPools[kMaxPools];
std::atomic<std::size_t> gPoolCount{0};

void forEachPool(void (*action)(BlockPool&)) {
    const std::size_t n = std::min(gPoolCount.load(std::memory_order_acquire), kMaxPools);
    for (std::size_t i = 0; i < n; ++i) {
        if (BlockPool* pool = gPools[i].load(std::memory_order_acquire)) action(*pool);
    }
}

}  // namespace

BlockPool::BlockPool(std::size_t size, std::size_t align) : size_(size), align_(static_cast<std::align_val_t>(align)) {
    // Reserved once, so a give never allocates while the lock is held.
    free_.reserve(kMaxFreeBlocks);
    static const bool forkHandlers = [] {
        return ::pthread_atfork([] { forEachPool([](BlockPool& p) { p.lock(); }); },
                                [] { forEachPool([](BlockPool& p) { p.unlock(); }); },
                                [] { forEachPool([](BlockPool& p) { p.unlock(); }); }) == 0;
    }();
    (void)forkHandlers;
    const std::size_t slot = gPoolCount.fetch_add(1, std::memory_order_acq_rel);
    // Pools are one per event class: more than kMaxPools would only lose the fork guard.
    if (slot < kMaxPools) gPools[slot].store(this, std::memory_order_release);
}

void* BlockPool::allocate() const {
    // The usual alignment takes malloc's plain path; over-aligned types need the aligned one.
    if (static_cast<std::size_t>(align_) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) return ::operator new(size_);
    return ::operator new(size_, align_);
}

void BlockPool::release(void* block) const noexcept {
    if (static_cast<std::size_t>(align_) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
        ::operator delete(block);
    } else {
        ::operator delete(block, align_);
    }
}

void BlockPool::lock() const noexcept {
    // Held for a push or a pop: a waiter spins a little, and yields only when the
    // holder has lost its core.
    for (int spins = 0; locked_.test_and_set(std::memory_order_acquire); ++spins) {
        if (spins >= 64) std::this_thread::yield();
    }
}

void* BlockPool::take() {
    lock();
    void* block = nullptr;
    if (!free_.empty()) {
        block = free_.back();
        free_.pop_back();
    }
    unlock();
    if (!block) return allocate();
    ZUB_UNPOISON(block, size_);
    return block;
}

void BlockPool::give(void* block) noexcept {
    if (!block) return;
    lock();
    const bool kept = free_.size() < kMaxFreeBlocks;
    if (kept) {
        ZUB_POISON(block, size_);
        free_.push_back(block);
    }
    unlock();
    if (!kept) release(block);
}

void BlockPool::stock(std::size_t count) {
    for (std::size_t n = freeBlocks(); n < std::min(count, kMaxFreeBlocks); ++n) {
        void* block = allocate();
        std::memset(block, 0, size_);
        give(block);
    }
}

std::size_t BlockPool::freeBlocks() const {
    lock();
    const std::size_t n = free_.size();
    unlock();
    return n;
}

}  // namespace zub
