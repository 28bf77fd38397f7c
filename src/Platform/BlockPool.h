// BlockPool: recycled memory blocks of one size for objects that the host's thread
// makes and the library's queue destroys (events).
//
// Memory freed on one thread and asked for on another is a poor fit for malloc:
// the host's thread keeps carving fresh heap pages, and the first touch of each
// page is a page fault on the host's call. A block returned to the pool has been
// touched already, so the next event made in it costs no fault and no trip into
// malloc's slow path. The pool keeps at most kMaxFreeBlocks blocks; the rest go
// back to the heap.
//
//   auto event = zub::makePooled<ZUBProCustomEvent>(...);   // as std::make_shared
//
// The lock is a spin lock held for a push or a pop only: a host thread never
// sleeps in the kernel for it. Under AddressSanitizer a block in the pool is
// poisoned, so a use after its object died is still reported.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace zub {

class BlockPool {
public:
    static constexpr std::size_t kMaxFreeBlocks = 2048;

    /// The pool of blocks of `Size` bytes aligned to `Align`; never destroyed, as
    /// events may die on a queue thread while the process exits.
    template <std::size_t Size, std::size_t Align>
    static BlockPool& of() {
        static BlockPool* const pool = new BlockPool(Size, Align);
        return *pool;
    }

    /// A block of this pool's size: a recycled one when there is one, else a new one.
    void* take();
    /// Gives a block taken from this pool back.
    void give(void* block) noexcept;
    /// Blocks waiting to be taken again.
    std::size_t freeBlocks() const;
    /// Adds new blocks, each written once (so its pages are in memory), until
    /// `count` wait (at most kMaxFreeBlocks).
    void stock(std::size_t count);

    BlockPool(const BlockPool&) = delete;
    BlockPool& operator=(const BlockPool&) = delete;

    /// The pool's lock (for the fork guard).
    void lock() const noexcept;
    void unlock() const noexcept { locked_.clear(std::memory_order_release); }

private:
    BlockPool(std::size_t size, std::size_t align);
    void* allocate() const;
    void release(void* block) const noexcept;

    const std::size_t size_;
    const std::align_val_t align_;
    mutable std::atomic_flag locked_;
    std::vector<void*> free_;  // guarded by locked_
};

/// A standard allocator that takes single objects from the BlockPool of their size
/// (arrays, which shared pointers never ask for, come from the heap).
template <class T>
struct PooledAllocator {
    using value_type = T;
    PooledAllocator() noexcept = default;
    template <class U>
    PooledAllocator(const PooledAllocator<U>&) noexcept {}

    T* allocate(std::size_t n) {
        if (n == 1) return static_cast<T*>(BlockPool::of<sizeof(T), alignof(T)>().take());
        return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(alignof(T))));
    }
    void deallocate(T* p, std::size_t n) noexcept {
        if (n == 1) {
            BlockPool::of<sizeof(T), alignof(T)>().give(p);
        } else {
            ::operator delete(p, std::align_val_t(alignof(T)));
        }
    }
    template <class U>
    bool operator==(const PooledAllocator<U>&) const noexcept {
        return true;
    }
};

namespace detail {

// The pool a PooledAllocator of the same type would use, found by allocating
// through this stateless twin (the shared count's block has the same size with
// either allocator).
inline thread_local BlockPool* probedPool = nullptr;
template <class T>
struct ProbeAllocator {
    using value_type = T;
    ProbeAllocator() noexcept = default;
    template <class U>
    ProbeAllocator(const ProbeAllocator<U>&) noexcept {}
    T* allocate(std::size_t n) {
        if (n == 1) probedPool = &BlockPool::of<sizeof(T), alignof(T)>();
        return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(alignof(T))));
    }
    void deallocate(T* p, std::size_t) noexcept {
        ::operator delete(p, std::align_val_t(alignof(T)));
    }
    template <class U>
    bool operator==(const ProbeAllocator<U>&) const noexcept {
        return true;
    }
};

}  // namespace detail

/// std::make_shared with the object and its shared count in a pooled block.
template <class T, class... Args>
std::shared_ptr<T> makePooled(Args&&... args) {
    return std::allocate_shared<T>(PooledAllocator<T>(), std::forward<Args>(args)...);
}

/// Keeps `count` touched blocks ready for makePooled<T>(args...): called on the
/// library's queue, so that the host's thread finds memory already in place.
template <class T, class... Args>
void stockPooled(std::size_t count, const Args&... args) {
    (void)std::allocate_shared<T>(detail::ProbeAllocator<T>(), args...);
    if (BlockPool* pool = detail::probedPool) pool->stock(count);
}

}  // namespace zub
