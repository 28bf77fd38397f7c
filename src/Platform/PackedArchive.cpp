#include "Platform/PackedArchive.h"

#include "Common/ZUBProHelper.h"
#include "Platform/ByteCursor.h"
#include "Platform/Cbor.h"

#include <bit>
#include <limits>

namespace zub {

namespace {

constexpr std::uint8_t kPackedVersion = 1;
constexpr std::size_t kMaxKey = std::numeric_limits<std::uint16_t>::max();

void putBytes(Data& out, const void* p, std::size_t n) {
    const auto* b = static_cast<const std::uint8_t*>(p);
    out.insert(out.end(), b, b + n);
}

void putKey(Data& out, const std::string& key, char kind, char form) {
    putLittleEndian(out, key.size(), 2);
    putBytes(out, key.data(), key.size());
    out.push_back(static_cast<std::uint8_t>(kind));
    out.push_back(static_cast<std::uint8_t>(form));
}

void putText(Data& out, const std::string& key, char kind, const std::string& text) {
    putKey(out, key, kind, 'S');
    putLittleEndian(out, text.size(), 4);
    putBytes(out, text.data(), text.size());
}

// Reads one field's payload by its form; false for an unknown form or damage.
bool readPayload(ByteCursor& in, char form, Value& out) {
    switch (form) {
        case 'S': {
            const auto n = static_cast<std::size_t>(in.le(4));
            const std::string_view text = in.view(n);
            out = std::string(text);
            return in.ok();
        }
        case 'C': {
            const auto n = static_cast<std::size_t>(in.le(4));
            const std::string_view bytes = in.view(n);
            if (!in.ok()) return false;
            auto value = Cbor::decode(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            if (!value) return false;
            out = std::move(*value);
            return true;
        }
        case 'I':
            out = static_cast<std::int64_t>(in.le(8));
            return in.ok();
        case 'U':
            out = in.le(8);
            return in.ok();
        case 'B': {
            const std::uint64_t b = in.le(1);
            out = b != 0;
            return in.ok() && b <= 1;
        }
        case 'F':
            out = std::bit_cast<double>(in.le(8));
            return in.ok();
        default:
            return false;
    }
}

// Runs the object's own code (its encodeWithCoder or restoring constructor):
// what it throws fails the coder instead of reaching the caller.
template <class F>
void runContained(const Coder& coder, const char* what, F&& run) {
    try {
        run();
    } catch (const std::exception& e) {
        coder.failWithReason(std::string(what) + " threw: " + e.what());
    } catch (...) {
        coder.failWithReason(std::string(what) + " threw");
    }
}

bool knownKind(char kind) {
    return kind == 'v' || kind == 'i' || kind == 'b' || kind == 'd';
}

}  // namespace

// Private access for packing and unpacking.
struct PackedAccess {
    static std::optional<Data> pack(const Archivable& object, std::string& why) {
        const std::optional<std::string> archiveName = archiveNameOf(object, why);
        if (!archiveName) return std::nullopt;
        const std::string& name = *archiveName;
        if (name.size() > kMaxKey) {
            why = "class name too long to pack";
            return std::nullopt;
        }
        Data out;
        out.reserve(512);
        out.push_back(kPackedVersion);
        putLittleEndian(out, name.size(), 2);
        putBytes(out, name.data(), name.size());
        const std::size_t lengthAt = out.size();
        putLittleEndian(out, 0, 4);  // the fields' length, known once they are written
        Coder coder(&out, nullptr, name);
        runContained(coder, "encodeWithCoder", [&] { object.encodeWithCoder(coder); });
        if (coder.failed()) {
            why = coder.failureReason();
            return std::nullopt;
        }
        const std::uint64_t length = out.size() - lengthAt - 4;
        for (std::size_t i = 0; i < 4; ++i) out[lengthAt + i] = static_cast<std::uint8_t>(length >> (8 * i));
        return out;
    }

    static std::shared_ptr<Archivable> unpack(const std::uint8_t* data, std::size_t size, std::string& why) {
        ByteCursor in(data, size);
        if (in.le(1) != kPackedVersion || !in.ok()) {
            why = "not a packed object";
            return nullptr;
        }
        const std::string name(in.view(static_cast<std::size_t>(in.le(2))));
        const std::uint64_t length = in.le(4);
        if (!in.ok() || length != in.remaining()) {
            why = "packed object cut short";
            return nullptr;
        }
        PackedFields fields;
        while (in.ok() && !in.atEnd()) {
            PackedFields::Field field;
            field.key = in.view(static_cast<std::size_t>(in.le(2)));
            field.kind = static_cast<char>(in.le(1));
            const auto form = static_cast<char>(in.le(1));
            if (!in.ok() || !knownKind(field.kind) || !readPayload(in, form, field.payload)) {
                why = "damaged field in a packed " + name;
                return nullptr;
            }
            fields.fields.push_back(std::move(field));
        }
        if (!in.ok() || name.empty()) {
            why = "packed object cut short";
            return nullptr;
        }
        ArchiveFactory factory = ArchiveRegistry::factoryFor(name);
        if (!factory) {
            why = "unknown class " + name;
            return nullptr;
        }
        Coder coder(nullptr, &fields, name);
        std::shared_ptr<Archivable> object;
        runContained(coder, "restoring", [&] { object = factory(coder); });
        if (coder.failed()) {
            why = coder.failureReason();
            return nullptr;
        }
        if (!object) why = "restoring " + name + " gave nothing";
        return object;
    }
};

namespace packed {

std::optional<Data> pack(const Archivable& object, std::string& why) {
    return PackedAccess::pack(object, why);
}

std::shared_ptr<Archivable> unpack(const std::uint8_t* data, std::size_t size) {
    std::string why;
    auto object = PackedAccess::unpack(data, size, why);
    if (!object) ZUBProHelper::LogDebug("[WARN] packed object not restored: %@", why);
    return object;
}

bool writeField(Data& out, const std::string& key, char kind, const Value& payload) {
    if (key.size() > kMaxKey) return false;
    switch (payload.type()) {
        case Value::value_t::string:
            putText(out, key, kind, payload.get_ref<const std::string&>());
            return true;
        case Value::value_t::number_integer:
            putKey(out, key, kind, 'I');
            putLittleEndian(out, static_cast<std::uint64_t>(payload.get<std::int64_t>()), 8);
            return true;
        case Value::value_t::number_unsigned:
            putKey(out, key, kind, 'U');
            putLittleEndian(out, payload.get<std::uint64_t>(), 8);
            return true;
        case Value::value_t::boolean:
            putKey(out, key, kind, 'B');
            out.push_back(payload.get<bool>() ? 1 : 0);
            return true;
        case Value::value_t::number_float:
            putKey(out, key, kind, 'F');
            putLittleEndian(out, std::bit_cast<std::uint64_t>(payload.get<double>()), 8);
            return true;
        default: {
            const Data cbor = Cbor::encode(payload);
            if (cbor.empty()) return false;
            putKey(out, key, kind, 'C');
            putLittleEndian(out, cbor.size(), 4);
            putBytes(out, cbor.data(), cbor.size());
            return true;
        }
    }
}

bool writeText(Data& out, const std::string& key, const std::string& text) {
    if (key.size() > kMaxKey) return false;
    putText(out, key, 'v', text);
    return true;
}

const Value* findField(const PackedFields& in, const std::string& key, char& kind) {
    // The last field under a key counts, as in a keyed archive, where a key
    // encoded again (a subclass overriding its base's field) replaces the first.
    for (auto field = in.fields.rbegin(); field != in.fields.rend(); ++field) {
        if (field->key == key) {
            kind = field->kind;
            return &field->payload;
        }
    }
    return nullptr;
}

}  // namespace packed
}  // namespace zub
