// Little-endian integers in the library's own binary records (the journal's
// frames, packed objects): writing them, and reading them back through a cursor
// that never reads past its bytes. Once a read would pass the end the cursor is
// spent: every later read gives zero or empty and ok() stays false.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zub {

/// Appends the low `bytes` bytes of `v`, least significant first.
inline void putLittleEndian(Data& out, std::uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

class ByteCursor {
public:
    ByteCursor(const std::uint8_t* data, std::size_t size) : p_(data), end_(data + size) {}

    bool ok() const { return ok_; }
    bool atEnd() const { return p_ == end_; }
    std::size_t remaining() const { return static_cast<std::size_t>(end_ - p_); }

    /// An unsigned little-endian integer of `bytes` bytes (1 to 8).
    std::uint64_t le(int bytes) {
        if (!need(static_cast<std::size_t>(bytes))) return 0;
        std::uint64_t v = 0;
        for (int i = 0; i < bytes; ++i) v |= static_cast<std::uint64_t>(p_[i]) << (8 * i);
        p_ += bytes;
        return v;
    }
    /// The next `n` bytes, viewed in place.
    std::string_view view(std::size_t n) {
        if (!need(n)) return {};
        std::string_view v(reinterpret_cast<const char*>(p_), n);
        p_ += n;
        return v;
    }
    /// The next `n` bytes, copied.
    Data bytes(std::size_t n) {
        if (!need(n)) return {};
        Data d(p_, p_ + n);
        p_ += n;
        return d;
    }

private:
    bool need(std::size_t n) {
        if (!ok_ || remaining() < n) ok_ = false;
        return ok_;
    }
    const std::uint8_t* p_;
    const std::uint8_t* end_;
    bool ok_ = true;
};

}  // namespace zub
