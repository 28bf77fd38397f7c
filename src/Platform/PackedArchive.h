// The packed form of one archived object: the library's own compact record of
// an Archivable, for records that are written and read back often (the event
// journal). It holds the class name and the fields in the order the object
// encoded them, written straight into bytes with no tree of values in between,
// so packing and unpacking cost a small part of a keyed archive. Objects are
// restored through the same registry and restoring constructors as keyed
// archives, with the same decoding rules.
//
// Only plain fields are packed (strings, integers, booleans, doubles, plain
// values). An object whose class encodes nested archivable objects cannot be
// packed: pack() gives nothing and the caller keeps the keyed archive.
//
// Layout: u8 version (1), u16 class-name length and the name, u32 length of
// the fields that follow (so that bytes cut short are told apart), then each field:
// u16 key length, the key, u8 kind (the coder's 'v', 'i', 'b' or 'd'), u8 form
// and the payload by form:
//   'S' u32 length + UTF-8 text      'C' u32 length + CBOR of a plain value
//   'I' int64                        'U' uint64
//   'B' one byte, 0 or 1             'F' IEEE-754 double
// Integers are little-endian. Reading is bounds-checked: damaged bytes give
// nothing (logged through the debug log), never a crash. Pure functions, any thread.
#pragma once

#include <ZUBCocoa/ZUBArchiving.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zub {

/// The fields of a packed object as a decoding coder reads them; the keys view
/// the packed bytes, which outlive the coder.
struct PackedFields {
    struct Field {
        std::string_view key;
        char kind = 'v';
        Value payload;
    };
    std::vector<Field> fields;
};

/// The name an object is archived under (its className(), or the name its own
/// type was registered under when a subclass did not override className());
/// std::nullopt with a reason when it has none.
std::optional<std::string> archiveNameOf(const Archivable& object, std::string& why);

namespace packed {

/// The packed bytes of `object`; std::nullopt (with the reason in `why`) when
/// it cannot be packed: a nested object, a failing encodeWithCoder, no name.
std::optional<Data> pack(const Archivable& object, std::string& why);
/// The object packed in [data, data + size); nullptr (logged) for damaged bytes,
/// an unregistered class or a restoring constructor that refuses the fields.
std::shared_ptr<Archivable> unpack(const std::uint8_t* data, std::size_t size);

template <class T>
std::shared_ptr<T> unpack(const std::uint8_t* data, std::size_t size) {
    return std::dynamic_pointer_cast<T>(unpack(data, size));
}

// Used by the coder; false when the field cannot be packed.
bool writeField(Data& out, const std::string& key, char kind, const Value& payload);
bool writeText(Data& out, const std::string& key, const std::string& text);
/// The payload under `key` and its kind; nullptr when absent.
const Value* findField(const PackedFields& in, const std::string& key, char& kind);

}  // namespace packed
}  // namespace zub
