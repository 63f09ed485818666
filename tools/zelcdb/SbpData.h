// SBP data as zelcdb sees it: the types of elements, decoded values, and the conversions
// between them and JSON. Encoding and decoding themselves are the library's serializer and
// deserializer; this file only walks types and values around them.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zelcdb {

// Members keep the order in which the peer or the element file gives them.
using Json = nlohmann::ordered_json;

// The SBP type bytes.
enum class Kind : uint8_t {
    Boolean = 0x82,
    Byte = 0x83,
    Short = 0x84,
    Int = 0x85,
    Long = 0x86,
    Float = 0x87,
    Double = 0x88,
    Bytes = 0x90,
    String = 0x91,
    Array = 0xA0,  // of scalars
    Structure = 0xA1,
    StructureArray = 0xA2,  // array of structures
};

// "int", "structure", ...: the names the element file and --type use.
const char* kindName(Kind kind);
// The scalar kinds by name (boolean, byte, short, int, long, float, double, bytes, string).
std::optional<Kind> scalarKindNamed(const std::string& name);
// The kinds an array of scalars may hold: boolean and the numbers except byte.
bool isArrayItemKind(Kind kind);

struct Member;

struct Type {
    Kind kind = Kind::Int;
    Kind items = Kind::Int;       // Array: the kind of every element
    std::vector<Member> members;  // Structure, and every element of a StructureArray
    bool membersKnown = true;     // false for a StructureArray learnt from an empty one
    // "int", "array of float", "array of structures", "structure".
    std::string describe() const;
};

struct Member {
    std::string name;  // as it appears in JSON: a name, or the UID in hex
    uint32_t uid = 0;
    Type type;
};

// One decoded SBP value, as the deserializer reported it.
struct Value {
    uint32_t uid = 0;
    Kind kind = Kind::Int;
    Kind items = Kind::Int;       // Array
    Json scalar;                  // scalars; bytes as a hex string
    std::vector<Value> children;  // members of a Structure, elements of the arrays
};

// The names zelcdb can put on UIDs. Keys that look like 0x1234abcd stand for the UID itself.
class Names {
public:
    void add(const std::string& name);
    void addType(const Type& type);
    // The name, or the UID as 0x%08x.
    std::string keyFor(uint32_t uid) const;
    uint32_t uidFor(const std::string& key) const;
    static bool isUidKey(const std::string& key, uint32_t* uid = nullptr);

private:
    std::map<uint32_t, std::string> names_;
};

// A value that does not fit its type, or a payload that does not decode.
class ValueError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Decodes one SBP value; throws ValueError with the deserializer's complaint.
Value decode(const uint8_t* data, size_t size);
Json toJson(const Value& value, const Names& names);
// The line zelcdb prints for a value: {"name": value}.
Json toLine(const Value& value, const Names& names);

// Encodes a JSON value as the given type under that UID; throws ValueError naming where
// the value does not fit ("position.latitude: expects a double, got \"north\"").
std::vector<uint8_t> encode(uint32_t uid, const Type& type, const Json& value);

// The type of a decoded value, members named as names knows them.
Type typeOf(const Value& value, const Names& names);
// The type a JSON value suggests when nothing better is known: integers are int (long when
// they need it), other numbers double, objects structures.
Type inferType(const Json& value);
// Why a decoded value is not of the type, or nothing when it is.
std::optional<std::string> mismatch(const Value& value, const Type& type);
// Adds every object key of the value to names and writes UID keys in the 0x%08x form.
Json normaliseKeys(const Json& value, Names& names);

}  // namespace zelcdb
