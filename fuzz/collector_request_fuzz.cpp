// Feeds the collector's request decoder. The first byte picks the route (report
// batch or identifier request) and the Content-Encoding; the rest is the body
// before enciphering, so the fuzzer steers what the decoder sees once the RC4
// layer is undone (length prefix, gzip stream, JSON). Every input must end in a
// decoded request or an error with a non-zero code: never a crash, a hang or an
// exception.
#include "RequestDecoder.h"

#include "Common/ZUBProHelper.h"

#include <cstddef>
#include <cstdint>

namespace {
constexpr const char* kKey = "5f0c2e7a9b14d386c0e1a2f47d95b3e8";
constexpr const char* kEncodings[] = {"rc4", "rc4,gzip", "rc4,gzip", ""};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::uint8_t selector = data[0];
    zub::Data wire(data + 1, data + size);
    ZUBProHelper::ChiperRC4(wire.data(), wire.size(), kKey);
    zubcollector::DecodeLimits limits;
    limits.maxPlainBytes = 1u << 20;
    const char* encoding = kEncodings[(selector >> 1) & 3];

    if (selector & 1) {
        const auto request = zubcollector::decodeMidRequest(std::move(wire), encoding, kKey, limits);
        if (request.error) {
            if (request.error->ret == 0 || request.error->message.empty()) __builtin_trap();
        } else if (request.ifv.empty() && request.ioa.empty() && request.ui.empty() && request.mid.empty()) {
            __builtin_trap();
        }
    } else {
        const auto batch = zubcollector::decodeReport(std::move(wire), encoding, kKey, limits);
        if (batch.error) {
            if (batch.error->ret == 0 || batch.error->message.empty() || !batch.events.empty()) __builtin_trap();
        } else {
            if (batch.plainSize > limits.maxPlainBytes) __builtin_trap();
            for (const auto& event : batch.events) {
                if (event.json.size() < 2 || event.json.front() != '{' || event.json.back() != '}') __builtin_trap();
            }
        }
    }
    return 0;
}
