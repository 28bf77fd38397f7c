#include "RequestDecoder.h"

#include "Common/Network/ZUBWireCodec.h"
#include "Common/ZUBProHelper.h"

#include <limits>
#include <set>
#include <string_view>

namespace zubcollector {
namespace {

// The keys every event carries around its own: who, when, which build, and the
// bookkeeping of each sending.
const std::set<std::string, std::less<>> kEnvelopeKeys = {"ky", "si", "ts", "cui", "cav", "ui",  "ifv", "ioa", "et",
                                                          "mid", "sv", "av", "ch",  "ut",  "rt", "m5",  "idx", "mc"};

constexpr std::size_t kMaxIdentifierLength = 256;

// Undoes the wrapping; on failure fills `error` and returns nothing.
std::optional<zub::Data> unwrap(zub::Data wire, std::string_view encoding, std::string_view key,
                                const DecodeLimits& limits, std::optional<DecodeError>& error) {
    zub::UnwrapResult unwrapped = zub::WireCodec::unwrapRequest(std::move(wire), encoding, key, limits.maxPlainBytes);
    if (!unwrapped.plain) {
        error = DecodeError{kRetBadWrapping, unwrapped.error};
        return std::nullopt;
    }
    if (unwrapped.plain->size() > limits.maxPlainBytes) {
        error = DecodeError{kRetTooLarge, "plain body of " + std::to_string(unwrapped.plain->size()) +
                                              " bytes is over the limit of " + std::to_string(limits.maxPlainBytes)};
        return std::nullopt;
    }
    return std::move(unwrapped.plain);
}

// Parses JSON text, refusing nesting deeper than the limit before the parser sees it.
std::optional<zub::Value> parseJson(std::string_view text, const DecodeLimits& limits,
                                    std::optional<DecodeError>& error) {
    const std::size_t depth = jsonNestingDepth(text);
    if (depth > limits.maxDepth) {
        error = DecodeError{kRetNotJson, "JSON nesting depth " + std::to_string(depth) + " is over the limit of " +
                                             std::to_string(limits.maxDepth)};
        return std::nullopt;
    }
    try {
        return zub::Value::parse(text);
    } catch (const std::exception& e) {
        error = DecodeError{kRetNotJson, std::string("body is not JSON: ") + e.what()};
        return std::nullopt;
    }
}

std::optional<std::string> stringField(const zub::Value& object, const char* name) {
    const auto it = object.find(name);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

// Writes `value` as compact JSON (no spaces, non-ASCII text as it is, invalid
// UTF-8 replaced) at the end of `out`: the same bytes as its dump().
void appendCompactJson(std::string& out, const zub::Value& value) {
    nlohmann::detail::serializer<zub::Value> writer(nlohmann::detail::output_adapter<char, std::string>(out), ' ',
                                                    zub::Value::error_handler_t::replace);
    writer.dump(value, false, false, 0);
}

std::string compactJson(const zub::Value& value) {
    std::string out;
    appendCompactJson(out, value);
    return out;
}

std::optional<std::int64_t> integerField(const zub::Value& object, const char* name) {
    const auto it = object.find(name);
    if (it == object.end()) return std::nullopt;
    if (it->is_number_integer() && !it->is_number_unsigned()) return it->get<std::int64_t>();
    if (it->is_number_unsigned()) {
        const auto value = it->get<std::uint64_t>();
        if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return static_cast<std::int64_t>(value);
        }
    }
    return std::nullopt;
}

// The "v" of cfg[slot] in a session event, when it is an integer.
std::optional<std::int64_t> reportedVersion(const zub::Value& event, const char* slot) {
    const auto cfg = event.find("cfg");
    if (cfg == event.end() || !cfg->is_object()) return std::nullopt;
    const auto block = cfg->find(slot);
    if (block == cfg->end() || !block->is_object()) return std::nullopt;
    return integerField(*block, "v");
}

}  // namespace

EventRecord eventRecordOf(zub::Value event) {
    EventRecord record;
    record.appKey = stringField(event, "ky");
    record.mid = stringField(event, "mid");
    record.ifv = stringField(event, "ifv");
    record.ioa = stringField(event, "ioa");
    record.ui = stringField(event, "ui");
    record.type = integerField(event, "et");
    record.session = integerField(event, "si");
    record.time = integerField(event, "ts");
    record.index = integerField(event, "idx");
    record.sdkConfigVersion = reportedVersion(event, "1");
    record.appConfigVersion = reportedVersion(event, "2");
    if (const auto m5 = event.find("m5"); m5 != event.end() && m5->is_string() && !m5->get_ref<const std::string&>().empty()) {
        zub::Value identity = zub::Value::array();
        for (const char* key : {"ui", "si"}) {
            const auto it = event.find(key);
            identity.push_back(it == event.end() ? zub::Value(nullptr) : *it);
        }
        identity.push_back(*m5);
        // Two different events of one second can come out with the same key once the
        // first has left the library; what the event itself says (its identifier,
        // pairs, duration, page...) tells them apart. The envelope is left out: it is
        // written anew at each sending. So are a session event's own keys, which
        // describe the device at the time of sending.
        if (record.type != 2) {
            // The compact JSON of the object of the event's own keys, in their order,
            // written key by key without building that object.
            std::string own = "{";
            for (const auto& [name, value] : event.items()) {
                if (kEnvelopeKeys.contains(name)) continue;
                if (own.size() > 1) own += ',';
                appendCompactJson(own, zub::Value(name));
                own += ':';
                appendCompactJson(own, value);
            }
            own += '}';
            identity.push_back(ZUBProHelper::md5encrypt(own).value_or(""));
        }
        record.key = compactJson(identity);
    }
    record.json = compactJson(event);
    record.object = std::move(event);
    return record;
}

std::size_t jsonNestingDepth(std::string_view text) {
    std::size_t depth = 0;
    std::size_t deepest = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        switch (c) {
            case '"':
                inString = true;
                break;
            case '[':
            case '{':
                if (++depth > deepest) deepest = depth;
                break;
            case ']':
            case '}':
                if (depth > 0) --depth;
                break;
            default:
                break;
        }
    }
    return deepest;
}

ReportBatch decodeReport(zub::Data wire, std::string_view contentEncoding, std::string_view key,
                         const DecodeLimits& limits) {
    ReportBatch batch;
    batch.encoding = std::string(contentEncoding);
    if (wire.empty()) return batch;  // nothing was sent: an empty batch
    auto plain = unwrap(std::move(wire), contentEncoding, key, limits, batch.error);
    if (!plain) return batch;
    batch.plainSize = plain->size();
    if (plain->empty()) return batch;
    const std::string_view text(reinterpret_cast<const char*>(plain->data()), plain->size());
    auto parsed = parseJson(text, limits, batch.error);
    if (!parsed) return batch;
    if (!parsed->is_array()) {
        batch.error = DecodeError{kRetBadShape, std::string("batch is a JSON ") + parsed->type_name() + ", not an array"};
        return batch;
    }
    batch.events.reserve(parsed->size());
    for (std::size_t i = 0; i < parsed->size(); ++i) {
        zub::Value& event = (*parsed)[i];
        if (!event.is_object()) {
            batch.events.clear();
            batch.error = DecodeError{kRetBadShape, "batch item " + std::to_string(i) + " is a JSON " +
                                                        event.type_name() + ", not an object"};
            return batch;
        }
        batch.events.push_back(eventRecordOf(std::move(event)));  // the parsed batch is not read again
    }
    return batch;
}

MidRequest decodeMidRequest(zub::Data wire, std::string_view contentEncoding, std::string_view key,
                            const DecodeLimits& limits) {
    MidRequest request;
    if (wire.empty()) {
        request.error = DecodeError{kRetBadShape, "empty identifier request"};
        return request;
    }
    auto plain = unwrap(std::move(wire), contentEncoding, key, limits, request.error);
    if (!plain) return request;
    const std::string_view text(reinterpret_cast<const char*>(plain->data()), plain->size());
    const auto parsed = parseJson(text, limits, request.error);
    if (!parsed) return request;
    if (!parsed->is_object()) {
        request.error =
            DecodeError{kRetBadShape, std::string("identifier request is a JSON ") + parsed->type_name() + ", not an object"};
        return request;
    }
    const std::pair<const char*, std::string*> fields[] = {
        {"ifv", &request.ifv}, {"ioa", &request.ioa}, {"ui", &request.ui}, {"mid", &request.mid}};
    for (const auto& [name, target] : fields) {
        const auto it = parsed->find(name);
        if (it == parsed->end() || it->is_null()) continue;
        if (!it->is_string()) {
            request.error = DecodeError{kRetBadShape, std::string("\"") + name + "\" is a JSON " + it->type_name() +
                                                          ", not a string"};
            return request;
        }
        *target = it->get<std::string>();
        if (target->size() > kMaxIdentifierLength) {
            request.error = DecodeError{kRetBadShape, std::string("\"") + name + "\" is longer than " +
                                                          std::to_string(kMaxIdentifierLength) + " bytes"};
            return request;
        }
    }
    if (request.ifv.empty() && request.ioa.empty() && request.ui.empty() && request.mid.empty()) {
        request.error = DecodeError{kRetBadShape, "identifier request carries no identifier"};
    }
    return request;
}

}  // namespace zubcollector
