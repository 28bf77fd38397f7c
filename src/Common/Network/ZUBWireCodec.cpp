#include "Common/Network/ZUBWireCodec.h"

#include "Common/ZUBProHelper.h"

#include <zlib.h>

namespace zub {
namespace {

// Inflates a gzip stream into exactly `expected` bytes; anything shorter, longer
// or damaged is refused. The output is allocated once from the declared length.
std::optional<Data> inflateExactly(const std::uint8_t* in, std::size_t size, std::size_t expected,
                                   std::string& error) {
    z_stream stream{};
    if (inflateInit2(&stream, 15 + 16) != Z_OK) {
        error = "inflate init failed";
        return std::nullopt;
    }
    Data out(expected + 1);  // one spare byte reveals a stream longer than declared
    stream.next_in = const_cast<Bytef*>(in);
    stream.avail_in = static_cast<uInt>(size);
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    const int status = inflate(&stream, Z_FINISH);
    const std::size_t produced = stream.total_out;
    const std::size_t leftover = stream.avail_in;
    inflateEnd(&stream);
    if (status != Z_STREAM_END) {
        error = produced > expected ? "gzip data longer than its declared length" : "truncated or damaged gzip data";
        return std::nullopt;
    }
    if (produced != expected) {
        error = "declared length " + std::to_string(expected) + " but gzip data holds " + std::to_string(produced);
        return std::nullopt;
    }
    if (leftover != 0) {
        error = "bytes after the end of the gzip data";
        return std::nullopt;
    }
    out.resize(produced);
    return out;
}

}  // namespace

UnwrapResult WireCodec::unwrapRequest(Data wire, std::string_view contentEncoding, std::string_view key,
                                      std::size_t maxPlainSize) {
    UnwrapResult result;
    ZUBProHelper::ChiperRC4(wire.data(), wire.size(), key);
    if (contentEncoding == "rc4") {
        result.plain = std::move(wire);
        return result;
    }
    if (contentEncoding != "rc4,gzip") {
        result.error = "unknown Content-Encoding \"" + std::string(contentEncoding) + "\"";
        return result;
    }
    if (wire.size() < 4) {
        result.error = "body too short for its length prefix";
        return result;
    }
    const std::size_t declared = (std::size_t{wire[0]} << 24) | (std::size_t{wire[1]} << 16) |
                                 (std::size_t{wire[2]} << 8) | std::size_t{wire[3]};
    if (declared > maxPlainSize) {
        result.error = "declared length " + std::to_string(declared) + " over the limit";
        return result;
    }
    result.plain = inflateExactly(wire.data() + 4, wire.size() - 4, declared, result.error);
    return result;
}

Data WireCodec::wrapReplyText(std::string_view jsonText, std::string_view key) {
    Data body(jsonText.begin(), jsonText.end());
    ZUBProHelper::ChiperRC4(body.data(), body.size(), key);
    return body;
}

Data WireCodec::wrapReply(const Value& reply, std::string_view key) {
    return wrapReplyText(reply.dump(), key);
}

}  // namespace zub
