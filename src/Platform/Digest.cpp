#include "Platform/Digest.h"

#include "Platform/ProcessLibraries.h"

#include <openssl/evp.h>

namespace zub {
namespace {

// The algorithm fetched from the default provider once: a digest by name or by
// EVP_md5() would look the implementation up again at every call. Kept for the
// life of the process (OpenSSL's exit-time cleanup is off), never freed.
const EVP_MD* fetched(const char* name, const EVP_MD* (*fallback)()) {
    ProcessLibraries::initialize();  // before OpenSSL's first use
    const EVP_MD* md = EVP_MD_fetch(nullptr, name, nullptr);
    return md != nullptr ? md : fallback();
}

template <std::size_t N>
std::array<std::uint8_t, N> digest(const EVP_MD* md, const void* data, std::size_t size) {
    std::array<std::uint8_t, N> out{};
    unsigned int length = 0;
    // EVP_Digest is one-shot and allocation-free from the caller's view; it fails
    // only on allocation failure, which leaves the zeroed result.
    EVP_Digest(data, size, out.data(), &length, md, nullptr);
    return out;
}

}  // namespace

std::array<std::uint8_t, 16> Digest::md5(const void* data, std::size_t size) {
    static const EVP_MD* const md = fetched("MD5", &EVP_md5);
    return digest<16>(md, data, size);
}

std::array<std::uint8_t, 20> Digest::sha1(const void* data, std::size_t size) {
    static const EVP_MD* const md = fetched("SHA1", &EVP_sha1);
    return digest<20>(md, data, size);
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
