#include "Platform/Random.h"

#include "Platform/Clock.h"

#include <cerrno>
#include <mutex>
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

std::uint32_t Random::uint32() {
    std::uint32_t v = 0;
    fill(&v, sizeof v);
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
