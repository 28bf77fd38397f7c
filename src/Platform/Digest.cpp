#include "Platform/Digest.h"

#include "Platform/ProcessLibraries.h"

#include <openssl/evp.h>

namespace zub {
namespace {

template <std::size_t N>
std::array<std::uint8_t, N> digest(const EVP_MD* (*algorithm)(), const void* data, std::size_t size) {
    std::array<std::uint8_t, N> out{};
    ProcessLibraries::initialize();  // before OpenSSL's first use
    unsigned int length = 0;
    // EVP_Digest is one-shot and allocation-free from the caller's view; it fails
    // only on allocation failure, which leaves the zeroed result.
    EVP_Digest(data, size, out.data(), &length, algorithm(), nullptr);
    return out;
}

}  // namespace

std::array<std::uint8_t, 16> Digest::md5(const void* data, std::size_t size) {
    return digest<16>(&EVP_md5, data, size);
}

std::array<std::uint8_t, 20> Digest::sha1(const void* data, std::size_t size) {
    return digest<20>(&EVP_sha1, data, size);
}

std::string Digest::hex(const std::uint8_t* bytes, std::size_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        out.push_back(kDigits[bytes[i] >> 4]);
        out.push_back(kDigits[bytes[i] & 0x0f]);
    }
    return out;
}

}  // namespace zub
