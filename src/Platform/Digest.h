// Message digests through OpenSSL's libcrypto. Pure functions, any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace zub {

class Digest {
public:
    static std::array<std::uint8_t, 16> md5(const void* data, std::size_t size);
    static std::array<std::uint8_t, 20> sha1(const void* data, std::size_t size);

    /// Lower-case hex of any byte sequence ("%02x" per byte).
    static std::string hex(const std::uint8_t* bytes, std::size_t size);

    template <std::size_t N>
    static std::string hex(const std::array<std::uint8_t, N>& bytes) {
        return hex(bytes.data(), N);
    }
};

}  // namespace zub
