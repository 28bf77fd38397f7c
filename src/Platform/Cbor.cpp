#include "Platform/Cbor.h"

#include <vector>

namespace zub {
namespace {

struct Frame {
    std::uint64_t remaining;  // items still expected (definite containers)
    bool indefinite;
};

// Walks the item structure without building anything. True when `data` holds
// exactly one well-framed item nesting at most `maxDepth` containers.
bool scan(const std::uint8_t* data, std::size_t size, std::size_t maxDepth, std::string& why) {
    std::vector<Frame> stack;
    std::size_t pos = 0;
    auto need = [&](std::uint64_t n) { return n <= size - pos; };

    for (;;) {
        if (pos >= size) {
            why = "truncated";
            return false;
        }
        const std::uint8_t initial = data[pos++];
        const unsigned major = initial >> 5;
        const unsigned info = initial & 0x1f;
        bool completed = true;

        if (initial == 0xff) {  // "break": closes the innermost indefinite container
            if (stack.empty() || !stack.back().indefinite) {
                why = "unexpected break";
                return false;
            }
            stack.pop_back();
        } else {
            std::uint64_t argument = info;
            bool indefinite = false;
            if (info >= 24 && info <= 27) {
                const std::size_t width = std::size_t{1} << (info - 24);
                if (!need(width)) {
                    why = "truncated";
                    return false;
                }
                argument = 0;
                for (std::size_t i = 0; i < width; ++i) argument = (argument << 8) | data[pos++];
            } else if (info == 31) {
                if (major != 2 && major != 3 && major != 4 && major != 5) {
                    why = "invalid indefinite length";
                    return false;
                }
                indefinite = true;
            } else if (info > 27) {
                why = "reserved additional information";
                return false;
            }

            switch (major) {
                case 0:
                case 1:
                case 7:
                    break;
                case 2:
                case 3:
                    if (indefinite) {
                        stack.push_back({0, true});
                        completed = false;
                    } else if (!need(argument)) {
                        why = "string longer than the input";
                        return false;
                    } else {
                        pos += static_cast<std::size_t>(argument);
                    }
                    break;
                case 4:
                case 5:
                    if (indefinite) {
                        stack.push_back({0, true});
                        completed = false;
                    } else if (argument > 0) {
                        if (major == 5 && argument > UINT64_MAX / 2) {
                            why = "map too large";
                            return false;
                        }
                        stack.push_back({major == 5 ? argument * 2 : argument, false});
                        completed = false;
                    }
                    break;
                case 6:  // a tag applies to the item that follows it
                    continue;
                default:
                    break;
            }
            if (stack.size() > maxDepth) {
                why = "nested too deeply";
                return false;
            }
        }

        if (completed) {
            // One item finished: count it against the enclosing containers,
            // closing every definite container it fills.
            while (!stack.empty() && !stack.back().indefinite) {
                if (--stack.back().remaining > 0) break;
                stack.pop_back();
            }
        }
        if (stack.empty()) break;
    }

    if (pos != size) {
        why = "trailing bytes";
        return false;
    }
    return true;
}

}  // namespace

Data Cbor::encode(const Value& value) {
    try {
        return Value::to_cbor(value);
    } catch (...) {
        return {};
    }
}

std::optional<Value> Cbor::decode(const Data& bytes, std::string* why) {
    return decode(bytes.data(), bytes.size(), why);
}

std::optional<Value> Cbor::decode(const std::uint8_t* data, std::size_t size, std::string* why) {
    std::string reason;
    if (data == nullptr || size == 0) {
        if (why != nullptr) *why = "empty";
        return std::nullopt;
    }
    if (!scan(data, size, kMaxDepth, reason)) {
        if (why != nullptr) *why = reason;
        return std::nullopt;
    }
    try {
        return Value::from_cbor(data, data + size, true, true, nlohmann::detail::cbor_tag_handler_t::ignore);
    } catch (...) {
        if (why != nullptr) *why = "malformed";
        return std::nullopt;
    }
}

}  // namespace zub
