#include "SbpData.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "Failure.h"
#include "Library.h"

namespace zelcdb {

namespace {

struct KindInfo {
    Kind kind;
    const char* name;
};

constexpr KindInfo kKinds[] = {
    {Kind::Boolean, "boolean"},     {Kind::Byte, "byte"},
    {Kind::Short, "short"},         {Kind::Int, "int"},
    {Kind::Long, "long"},           {Kind::Float, "float"},
    {Kind::Double, "double"},       {Kind::Bytes, "bytes"},
    {Kind::String, "string"},       {Kind::Array, "array"},
    {Kind::Structure, "structure"}, {Kind::StructureArray, "array of structures"},
};

bool isContainer(Kind kind) {
    return kind == Kind::Array || kind == Kind::Structure || kind == Kind::StructureArray;
}

// A short picture of a JSON value for error messages.
std::string shown(const Json& value) {
    std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (text.size() > 40) text = text.substr(0, 37) + "...";
    return text;
}

// "an int", "a double", "bytes".
std::string withArticle(const std::string& described) {
    if (described == "bytes") return described;
    bool vowel = std::string("aeiou").find(described[0]) != std::string::npos;
    return (vowel ? "an " : "a ") + described;
}

std::string at(const std::string& path) {
    return path.empty() ? std::string() : path + ": ";
}

// ---- Decoding: the deserializer's callbacks build a Value tree -------------------------

struct Builder {
    Value root;
    bool haveRoot = false;
    std::vector<Value*> open;  // innermost container last

    Value& add(uint32_t uid, Kind kind) {
        if (open.empty()) {
            root = Value{};
            haveRoot = true;
            root.uid = uid;
            root.kind = kind;
            return root;
        }
        Value& child = open.back()->children.emplace_back();
        child.uid = uid;
        child.kind = kind;
        return child;
    }
};

Builder& builder(void* userData) {
    return *static_cast<Builder*>(userData);
}

// Floats are shown as their shortest decimal form, 2.3 rather than 2.299999952316284.
double shortestDouble(float value) {
    if (!std::isfinite(value)) return static_cast<double>(value);
    char text[32];
    auto result = std::to_chars(text, text + sizeof text - 1, value);
    *result.ptr = '\0';
    return std::strtod(text, nullptr);
}

template <typename T>
void scalar(void* userData, uint32_t uid, Kind kind, T value) {
    builder(userData).add(uid, kind).scalar = value;
}

const ZELSBPDeserializerCallbacks kBuildCallbacks = {
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int32_t v) {
        scalar(u, uid, Kind::Boolean, v != 0);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int8_t v) {
        scalar(u, uid, Kind::Byte, static_cast<int64_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int16_t v) {
        scalar(u, uid, Kind::Short, static_cast<int64_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int32_t v) {
        scalar(u, uid, Kind::Int, static_cast<int64_t>(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, int64_t v) {
        scalar(u, uid, Kind::Long, v);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, float v) {
        scalar(u, uid, Kind::Float, shortestDouble(v));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, double v) {
        scalar(u, uid, Kind::Double, v);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, const uint8_t* data, uint32_t length) {
        scalar(u, uid, Kind::Bytes, toHex(data, length));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, const char* utf8) {
        scalar(u, uid, Kind::String, std::string(utf8));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, uint32_t) {
        Builder& b = builder(u);
        b.open.push_back(&b.add(uid, Kind::Structure));
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t uid, uint8_t elementType) {
        Builder& b = builder(u);
        bool ofStructures = elementType == static_cast<uint8_t>(Kind::Structure);
        Value& array = b.add(uid, ofStructures ? Kind::StructureArray : Kind::Array);
        array.items = static_cast<Kind>(elementType);
        b.open.push_back(&array);
    },
    [](ZELSBPDeserializer*, void*, void* u, uint32_t) {
        Builder& b = builder(u);
        if (!b.open.empty()) b.open.pop_back();
    },
};

// ---- Encoding: the serializer, with its errors turned into ValueError -----------------------

class Serializer {
public:
    Serializer() {
        if (sdk().serializerCreate(&handle_) != ZELCDBErrorNone) {
            throw ValueError("the SBP serializer could not be created");
        }
    }
    ~Serializer() { sdk().serializerDestroy(handle_); }
    Serializer(const Serializer&) = delete;
    Serializer& operator=(const Serializer&) = delete;

    ZELSBPSerializer* get() const { return handle_; }

    void check(ZELCDBError error, const std::string& path) const {
        if (error != ZELCDBErrorNone) {
            throw ValueError(at(path) + "the SBP serializer refused it: " + errorText(error));
        }
    }

    std::vector<uint8_t> bytes() const {
        const uint8_t* data = nullptr;
        uint32_t length = 0;
        check(sdk().serializerGetData(handle_, &data, &length), "");
        return std::vector<uint8_t>(data, data + length);
    }

private:
    ZELSBPSerializer* handle_ = nullptr;
};

[[noreturn]] void doesNotFit(const std::string& path, const std::string& expected,
                             const Json& value) {
    throw ValueError(at(path) + "expects " + expected + ", got " + shown(value));
}

int64_t integerIn(const std::string& path, const Json& value, Kind kind, int64_t low,
                  int64_t high) {
    int64_t number = 0;
    bool ok = false;
    if (value.is_number_unsigned()) {
        uint64_t u = value.get<uint64_t>();
        ok = u <= static_cast<uint64_t>(high);
        number = static_cast<int64_t>(u);
    } else if (value.is_number_integer()) {
        number = value.get<int64_t>();
        ok = true;
    } else if (value.is_number_float()) {
        double d = value.get<double>();
        ok = std::floor(d) == d && d >= -9.2e18 && d <= 9.2e18;
        number = ok ? static_cast<int64_t>(d) : 0;
    }
    if (!ok || number < low || number > high) {
        doesNotFit(path,
                   withArticle(kindName(kind)) + " (an integer from " + std::to_string(low) +
                       " to " + std::to_string(high) + ")",
                   value);
    }
    return number;
}

std::string memberList(const std::vector<Member>& members) {
    std::string list;
    for (const Member& member : members) list += (list.empty() ? "" : ", ") + member.name;
    return list.empty() ? "none" : list;
}

void put(const Serializer& s, uint32_t uid, const Type& type, const Json& value,
         const std::string& path, bool nested);

void putMembers(const Serializer& s, const std::vector<Member>& members, const Json& value,
                const std::string& path) {
    for (const Member& member : members) {
        auto found = value.find(member.name);
        if (found == value.end()) {
            throw ValueError(at(path) + "missing member '" + member.name + "'");
        }
        put(s, member.uid, member.type, *found,
            path.empty() ? member.name : path + "." + member.name, true);
    }
    for (auto item = value.begin(); item != value.end(); ++item) {
        bool known = false;
        for (const Member& member : members) known = known || member.name == item.key();
        if (!known) {
            throw ValueError(at(path) + "no member '" + item.key() +
                             "' (its members: " + memberList(members) + ")");
        }
    }
}

void put(const Serializer& s, uint32_t uid, const Type& type, const Json& value,
         const std::string& path, bool nested) {
    ZELSBPSerializer* h = s.get();
    const ZELCDBSDK& t = sdk();
    switch (type.kind) {
        case Kind::Boolean:
            if (!value.is_boolean()) doesNotFit(path, "a boolean", value);
            s.check(t.serializerAddBoolean(h, uid, value.get<bool>() ? 1 : 0), path);
            return;
        case Kind::Byte:
            s.check(t.serializerAddByte(
                        h, uid,
                        static_cast<int8_t>(integerIn(path, value, type.kind, INT8_MIN, INT8_MAX))),
                    path);
            return;
        case Kind::Short:
            s.check(t.serializerAddShort(h, uid,
                                         static_cast<int16_t>(integerIn(path, value, type.kind,
                                                                        INT16_MIN, INT16_MAX))),
                    path);
            return;
        case Kind::Int:
            s.check(t.serializerAddInt(h, uid,
                                       static_cast<int32_t>(integerIn(path, value, type.kind,
                                                                      INT32_MIN, INT32_MAX))),
                    path);
            return;
        case Kind::Long:
            s.check(t.serializerAddLong(h, uid,
                                        integerIn(path, value, type.kind, INT64_MIN, INT64_MAX)),
                    path);
            return;
        case Kind::Float:
            if (!value.is_number()) doesNotFit(path, "a float", value);
            s.check(t.serializerAddFloat(h, uid, value.get<float>()), path);
            return;
        case Kind::Double:
            if (!value.is_number()) doesNotFit(path, "a double", value);
            s.check(t.serializerAddDouble(h, uid, value.get<double>()), path);
            return;
        case Kind::Bytes: {
            if (!value.is_string()) doesNotFit(path, "bytes as a hex string", value);
            std::vector<uint8_t> bytes;
            try {
                bytes = fromHex(value.get<std::string>());
            } catch (const Failure& e) {
                throw ValueError(at(path) + e.what());
            }
            s.check(t.serializerAddBytes(h, uid, bytes.data(), static_cast<uint32_t>(bytes.size())),
                    path);
            return;
        }
        case Kind::String: {
            if (!value.is_string()) doesNotFit(path, "a string", value);
            const std::string& text = value.get_ref<const std::string&>();
            // Peers count the characters of a string where the encoder writes its UTF-8
            // length; only ASCII text reads back the same.
            for (unsigned char c : text) {
                if (c >= 0x80) {
                    throw ValueError(at(path) + "only ASCII strings can be sent: " + shown(value));
                }
            }
            s.check(t.serializerAddString(h, uid, text.data(), static_cast<uint32_t>(text.size())),
                    path);
            return;
        }
        case Kind::Structure:
            if (!value.is_object()) doesNotFit(path, "a structure (a JSON object)", value);
            if (nested && type.members.empty()) {
                throw ValueError(at(path) +
                                 "an empty structure inside another value cannot be read back");
            }
            s.check(t.serializerBeginStructure(h, uid), path);
            putMembers(s, type.members, value, path);
            s.check(t.serializerEnd(h), path);
            return;
        case Kind::Array:
        case Kind::StructureArray: {
            if (!value.is_array()) {
                doesNotFit(path, withArticle(type.describe()) + " (a JSON array)", value);
            }
            if (nested && value.empty()) {
                throw ValueError(at(path) +
                                 "an empty array inside another value cannot be read back");
            }
            bool ofStructures = type.kind == Kind::StructureArray;
            s.check(t.serializerBeginArray(
                        h, uid, static_cast<uint8_t>(ofStructures ? Kind::Structure : type.items)),
                    path);
            for (size_t i = 0; i < value.size(); ++i) {
                std::string where = path + "[" + std::to_string(i) + "]";
                if (!ofStructures) {
                    Type item;
                    item.kind = type.items;
                    put(s, 0, item, value[i], where, true);
                    continue;
                }
                if (!value[i].is_object())
                    doesNotFit(where, "a structure (a JSON object)", value[i]);
                Type element = type.membersKnown ? Type{} : inferType(value[i]);
                const std::vector<Member>& members =
                    type.membersKnown ? type.members : element.members;
                if (members.empty()) {
                    throw ValueError(where +
                                     ": an empty structure inside an array cannot be read back");
                }
                s.check(t.serializerBeginStructure(h, 0), where);
                putMembers(s, members, value[i], where);
                s.check(t.serializerEnd(h), where);
            }
            s.check(t.serializerEnd(h), path);
            return;
        }
    }
    throw ValueError(at(path) + "unknown type");
}

Kind numberKind(const Json& value) {
    if (value.is_number_float()) return Kind::Double;
    bool fitsInt = value.is_number_unsigned()
                       ? value.get<uint64_t>() <= static_cast<uint64_t>(INT32_MAX)
                       : value.get<int64_t>() >= INT32_MIN && value.get<int64_t>() <= INT32_MAX;
    return fitsInt ? Kind::Int : Kind::Long;
}

}  // namespace

const char* kindName(Kind kind) {
    for (const KindInfo& info : kKinds) {
        if (info.kind == kind) return info.name;
    }
    return "unknown";
}

std::optional<Kind> scalarKindNamed(const std::string& name) {
    for (const KindInfo& info : kKinds) {
        if (!isContainer(info.kind) && name == info.name) return info.kind;
    }
    return std::nullopt;
}

bool isArrayItemKind(Kind kind) {
    return kind == Kind::Boolean || (kind >= Kind::Short && kind <= Kind::Double);
}

std::string Type::describe() const {
    if (kind == Kind::Array) return std::string("array of ") + kindName(items);
    return kindName(kind);
}

void Names::add(const std::string& name) {
    if (isUidKey(name)) return;
    names_.emplace(hashName(name), name);
}

void Names::addType(const Type& type) {
    for (const Member& member : type.members) {
        add(member.name);
        addType(member.type);
    }
}

std::string Names::keyFor(uint32_t uid) const {
    auto found = names_.find(uid);
    return found != names_.end() ? found->second : hex32(uid);
}

uint32_t Names::uidFor(const std::string& key) const {
    uint32_t uid = 0;
    return isUidKey(key, &uid) ? uid : hashName(key);
}

bool Names::isUidKey(const std::string& key, uint32_t* uid) {
    if (key.size() < 3 || key.size() > 10 || key[0] != '0' || (key[1] != 'x' && key[1] != 'X')) {
        return false;
    }
    uint32_t value = 0;
    if (!parseNumber(key, value)) return false;
    if (uid) *uid = value;
    return true;
}

Value decode(const uint8_t* data, size_t size) {
    Builder result;
    ZELSBPDeserializer* deserializer = nullptr;
    ZELCDBError error =
        sdk().deserializerCreate(&deserializer, nullptr, &kBuildCallbacks, sizeof kBuildCallbacks);
    if (error == ZELCDBErrorNone) {
        error =
            sdk().deserializerDeserialize(deserializer, &result, data, static_cast<uint32_t>(size));
        sdk().deserializerDestroy(deserializer);
    }
    if (error != ZELCDBErrorNone || !result.haveRoot) {
        std::string bytes = toHex(data, size < 32 ? size : 32) + (size > 32 ? "..." : "");
        throw ValueError("undecodable SBP data (" + errorText(error) + "): " + bytes);
    }
    return result.root;
}

Json toJson(const Value& value, const Names& names) {
    switch (value.kind) {
        case Kind::Structure: {
            Json object = Json::object();
            for (const Value& member : value.children) {
                object[names.keyFor(member.uid)] = toJson(member, names);
            }
            return object;
        }
        case Kind::Array:
        case Kind::StructureArray: {
            Json array = Json::array();
            for (const Value& element : value.children) array.push_back(toJson(element, names));
            return array;
        }
        default:
            return value.scalar;
    }
}

Json toLine(const Value& value, const Names& names) {
    Json line = Json::object();
    line[names.keyFor(value.uid)] = toJson(value, names);
    return line;
}

std::vector<uint8_t> encode(uint32_t uid, const Type& type, const Json& value) {
    Serializer serializer;
    put(serializer, uid, type, value, "", false);
    return serializer.bytes();
}

Type typeOf(const Value& value, const Names& names) {
    Type type;
    type.kind = value.kind;
    type.items = value.items;
    const std::vector<Value>* members = nullptr;
    if (value.kind == Kind::Structure) members = &value.children;
    if (value.kind == Kind::StructureArray) {
        type.membersKnown = !value.children.empty();
        if (type.membersKnown) members = &value.children.front().children;
    }
    if (members) {
        for (const Value& child : *members) {
            type.members.push_back(
                Member{names.keyFor(child.uid), child.uid, typeOf(child, names)});
        }
    }
    return type;
}

Type inferType(const Json& value) {
    Type type;
    if (value.is_boolean()) {
        type.kind = Kind::Boolean;
    } else if (value.is_number()) {
        type.kind = numberKind(value);
    } else if (value.is_string()) {
        type.kind = Kind::String;
    } else if (value.is_object()) {
        type.kind = Kind::Structure;
        Names none;
        for (auto item = value.begin(); item != value.end(); ++item) {
            type.members.push_back(
                Member{item.key(), none.uidFor(item.key()), inferType(item.value())});
        }
    } else if (value.is_array()) {
        type.kind = Kind::Array;
        type.items = Kind::Int;
        if (!value.empty() && value[0].is_object()) {
            type.kind = Kind::StructureArray;
            type.members = inferType(value[0]).members;
        } else if (!value.empty() && value[0].is_boolean()) {
            type.items = Kind::Boolean;
        } else {
            for (const Json& element : value) {
                if (!element.is_number()) {
                    throw ValueError("cannot tell the type of " + shown(value) +
                                     ": SBP arrays hold numbers, booleans or structures");
                }
                Kind kind = numberKind(element);
                if (kind == Kind::Double || (kind == Kind::Long && type.items == Kind::Int)) {
                    type.items = kind;
                }
            }
        }
    } else {
        throw ValueError("cannot send null");
    }
    return type;
}

std::optional<std::string> mismatch(const Value& value, const Type& type) {
    Type actual;
    actual.kind = value.kind;
    actual.items = value.items;
    if (value.kind != type.kind || (type.kind == Kind::Array && value.items != type.items)) {
        return "expects " + withArticle(type.describe()) + ", got " +
               withArticle(actual.describe());
    }
    auto membersOf = [&](const Value& structure,
                         const std::string& where) -> std::optional<std::string> {
        for (const Member& member : type.members) {
            const Value* found = nullptr;
            for (const Value& child : structure.children) {
                if (child.uid == member.uid) found = &child;
            }
            if (!found) return where + "missing member '" + member.name + "'";
            if (auto why = mismatch(*found, member.type)) return where + member.name + ": " + *why;
        }
        if (structure.children.size() != type.members.size()) {
            return where + "members other than " + memberList(type.members);
        }
        return std::nullopt;
    };
    if (type.kind == Kind::Structure) return membersOf(value, "");
    if (type.kind == Kind::StructureArray && type.membersKnown) {
        for (size_t i = 0; i < value.children.size(); ++i) {
            if (auto why = membersOf(value.children[i], "[" + std::to_string(i) + "] ")) return why;
        }
    }
    return std::nullopt;
}

Json normaliseKeys(const Json& value, Names& names) {
    if (value.is_array()) {
        Json array = Json::array();
        for (const Json& element : value) array.push_back(normaliseKeys(element, names));
        return array;
    }
    if (!value.is_object()) return value;
    Json object = Json::object();
    for (auto item = value.begin(); item != value.end(); ++item) {
        uint32_t uid = 0;
        std::string key = item.key();
        if (Names::isUidKey(key, &uid)) {
            key = hex32(uid);
        } else {
            names.add(key);
        }
        object[key] = normaliseKeys(item.value(), names);
    }
    return object;
}

}  // namespace zelcdb
