#include "Platform/Random.h"

#include "Platform/Clock.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <random>
#include <sys/random.h>
#include <unistd.h>

namespace zub {
namespace {

void fallbackFill(std::uint8_t* out, std::size_t size) {
    static std::mutex mutex;
    static std::mt19937_64 engine(static_cast<std::uint64_t>(Clock::nowMicros()) ^
                                  (static_cast<std::uint64_t>(::getpid()) << 32) ^
                                  reinterpret_cast<std::uintptr_t>(&mutex));
    std::lock_guard lock(mutex);
    for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<std::uint8_t>(engine());
}

}  // namespace

void Random::fill(void* buffer, std::size_t size) {
    auto* out = static_cast<std::uint8_t*>(buffer);
    while (size > 0) {
        const ssize_t n = ::getrandom(out, size, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            fallbackFill(out, size);
            return;
        }
        out += n;
        size -= static_cast<std::size_t>(n);
    }
}

namespace {

// Small values are handed out from a per-thread block of kernel randomness, as
// the platform's arc4random does, instead of one system call each: every filed
// and every sent event takes one. A fork gives the child a copy of the block, so
// the child starts a new one (each block is used by one process only).
std::atomic<unsigned> gForkGeneration{0};

struct RandomBlock {
    std::uint8_t bytes[256];
    std::size_t used = sizeof bytes;
    unsigned generation = 0;
};

}  // namespace

std::uint32_t Random::uint32() {
    static const bool watchingForks = [] {
        return ::pthread_atfork(nullptr, nullptr, [] { gForkGeneration.fetch_add(1, std::memory_order_relaxed); }) == 0;
    }();
    (void)watchingForks;
    thread_local RandomBlock block;
    const unsigned generation = gForkGeneration.load(std::memory_order_relaxed);
    if (block.used + sizeof(std::uint32_t) > sizeof block.bytes || block.generation != generation) {
        fill(block.bytes, sizeof block.bytes);
        block.used = 0;
        block.generation = generation;
    }
    std::uint32_t v = 0;
    std::memcpy(&v, block.bytes + block.used, sizeof v);
    std::memset(block.bytes + block.used, 0, sizeof v);  // a value handed out is not kept
    block.used += sizeof v;
    return v;
}

std::string Random::uuidString() {
    std::uint8_t b[16];
    fill(b, sizeof b);
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0f) | 0x40);  // version 4
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3f) | 0x80);  // RFC 4122 variant
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
        out.push_back(kHex[b[i] >> 4]);
        out.push_back(kHex[b[i] & 0x0f]);
    }
    return out;
}

}  // namespace zub
