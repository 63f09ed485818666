#include "ElementFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "Failure.h"
#include "Library.h"
#include "Server.h"

namespace zelcdb {

namespace {

// ---- Parsing with line numbers -----------------------------------------------------------
//
// The JSON parser tells where a syntax error is but not where a value it accepted came
// from. The file is therefore fed to it through an iterator that counts lines, and a SAX
// handler notes the line of every key and array element as the parser reports it. The
// parser asks for characters one at a time, and a token has been read completely when it
// is reported (a number with one character of look-ahead, which is on the same line), so
// the line of the last character read is the token's line.

struct LineCount {
    int line = 1;      // the line of the next character
    int lastLine = 1;  // the line of the last character read
};

class CountingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountingIterator(const char* position, LineCount* count) : position_(position), count_(count) {}
    reference operator*() const { return *position_; }
    CountingIterator& operator++() {
        count_->lastLine = count_->line;
        if (*position_ == '\n') ++count_->line;
        ++position_;
        return *this;
    }
    CountingIterator operator++(int) {
        CountingIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const CountingIterator& other) const { return position_ == other.position_; }
    bool operator!=(const CountingIterator& other) const { return position_ != other.position_; }

private:
    const char* position_;
    LineCount* count_;
};

// Builds the document and a map from each value's path ("/elements/2/value") to its line.
class LocatingBuilder : public nlohmann::json_sax<Json> {
public:
    explicit LocatingBuilder(const LineCount& count) : count_(count) {}

    Json root;
    std::map<std::string, int> lines;
    std::string error;  // "LINE:COLUMN: what", or empty
    int errorLine = 0;

    bool null() override { return place(nullptr); }
    bool boolean(bool value) override { return place(value); }
    bool number_integer(number_integer_t value) override { return place(value); }
    bool number_unsigned(number_unsigned_t value) override { return place(value); }
    bool number_float(number_float_t value, const string_t&) override { return place(value); }
    bool string(string_t& value) override { return place(value); }
    bool binary(binary_t&) override { return place(nullptr); }

    bool start_object(std::size_t) override { return open(Json::object()); }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(Json::array()); }
    bool end_array() override { return close(); }

    bool key(string_t& key) override {
        Frame& frame = frames_.back();
        if (frame.container->contains(key)) {
            errorLine = count_.lastLine;
            error = "duplicate key \"" + key + "\"";
            return false;
        }
        frame.key = key;
        lines.emplace(frame.path + "/" + key, count_.lastLine);
        return true;
    }

    bool parse_error(std::size_t, const std::string&,
                     const nlohmann::detail::exception& e) override {
        // "[json.exception.parse_error.101] parse error at line 3, column 5: syntax error ..."
        std::string what = e.what();
        size_t at = what.find("at line ");
        size_t colon = what.find(": ", at == std::string::npos ? 0 : at);
        if (at != std::string::npos && colon != std::string::npos) {
            std::string where = what.substr(at + 8, colon - at - 8);  // "3, column 5"
            size_t comma = where.find(", column ");
            error = comma == std::string::npos
                        ? what.substr(colon + 2)
                        : where.substr(comma + 9) + ": " + what.substr(colon + 2);
            errorLine = std::atoi(where.c_str());
        } else {
            error = what;
            errorLine = count_.line;
        }
        return false;
    }

private:
    struct Frame {
        Json* container;
        std::string path;
        std::string key;
    };

    // Puts a value where the parser is and returns it with its path.
    std::pair<Json*, std::string> put(Json value) {
        if (frames_.empty()) {
            root = std::move(value);
            lines.emplace("", count_.lastLine);
            return {&root, ""};
        }
        Frame& frame = frames_.back();
        if (frame.container->is_array()) {
            std::string path = frame.path + "/" + std::to_string(frame.container->size());
            lines.emplace(path, count_.lastLine);
            frame.container->push_back(std::move(value));
            return {&frame.container->back(), path};
        }
        Json& slot = (*frame.container)[frame.key];
        slot = std::move(value);
        return {&slot, frame.path + "/" + frame.key};
    }

    bool place(Json value) {
        put(std::move(value));
        return true;
    }

    bool open(Json container) {
        auto placed = put(std::move(container));
        frames_.push_back(Frame{placed.first, placed.second, {}});
        return true;
    }

    bool close() {
        frames_.pop_back();
        return true;
    }

    const LineCount& count_;
    std::vector<Frame> frames_;
};

// ---- Checking what was read ----------------------------------------------------------

class Checker {
public:
    Checker(std::string file, std::map<std::string, int> lines)
        : file_(std::move(file)), lines_(std::move(lines)) {}

    [[noreturn]] void fail(const std::string& path, const std::string& what) const {
        throw Failure(kExitElementFile, file_ + ":" + std::to_string(lineOf(path)) + ": " + what);
    }

    // Only the given keys may appear in the object at path.
    void onlyKeys(const Json& object, const std::string& path,
                  std::initializer_list<const char*> allowed, const std::string& context) const {
        for (auto item = object.begin(); item != object.end(); ++item) {
            bool known = false;
            std::string list;
            for (const char* key : allowed) {
                known = known || item.key() == key;
                list += (list.empty() ? "" : ", ") + std::string(key);
            }
            if (!known) {
                fail(path + "/" + item.key(),
                     context + "unknown key \"" + item.key() + "\" (expected " + list + ")");
            }
        }
    }

    const Json& need(const Json& object, const std::string& path, const char* key,
                     const std::string& context) const {
        auto found = object.find(key);
        if (found == object.end()) fail(path, context + "no \"" + key + "\"");
        return *found;
    }

    std::string nameAt(const Json& object, const std::string& path,
                       const std::string& context) const {
        const Json& name = need(object, path, "name", context);
        if (!name.is_string() || name.get<std::string>().empty()) {
            fail(path + "/name", context + "\"name\" must be a non-empty string");
        }
        return name.get<std::string>();
    }

    // The type described by an element or member object (its "type", "members", "items").
    Type typeAt(const Json& object, const std::string& path, const std::string& context) const {
        const Json& typeName = need(object, path, "type", context);
        if (!typeName.is_string()) fail(path + "/type", context + "\"type\" must be a string");
        std::string name = typeName.get<std::string>();
        Type type;
        if (auto scalar = scalarKindNamed(name)) {
            type.kind = *scalar;
            if (object.contains("members") || object.contains("items")) {
                fail(path + "/type", context + "a " + name + " has no members or items");
            }
        } else if (name == "structure") {
            type.kind = Kind::Structure;
            type.members = membersAt(object, path, context);
        } else if (name == "array") {
            const Json& items = need(object, path, "items", context + "an array needs ");
            itemsAt(items, path + "/items", context, type);
        } else {
            fail(path + "/type", context + "unknown type \"" + name +
                                     "\" (expected boolean, byte, short, int, long, float, "
                                     "double, bytes, string, structure or array)");
        }
        return type;
    }

private:
    void itemsAt(const Json& items, const std::string& path, const std::string& context,
                 Type& type) const {
        static const char* const kWhat =
            "SBP arrays hold boolean, short, int, long, float, double or structures";
        if (items.is_string()) {
            auto kind = scalarKindNamed(items.get<std::string>());
            if (!kind || !isArrayItemKind(*kind)) {
                fail(path,
                     context + "arrays cannot hold \"" + items.get<std::string>() + "\": " + kWhat);
            }
            type.kind = Kind::Array;
            type.items = *kind;
            return;
        }
        if (items.is_object()) {
            onlyKeys(items, path, {"type", "members"}, context);
            const Json& itemType = need(items, path, "type", context + "items ");
            if (itemType != "structure") fail(path + "/type", context + kWhat);
            type.kind = Kind::StructureArray;
            type.members = membersAt(items, path, context);
            return;
        }
        fail(path, context + "\"items\" must be a type name or {\"type\": \"structure\", ...}");
    }

    std::vector<Member> membersAt(const Json& object, const std::string& path,
                                  const std::string& context) const {
        const Json& members = need(object, path, "members", context + "a structure needs ");
        std::string where = path + "/members";
        if (!members.is_array() || members.empty()) {
            fail(where, context + "\"members\" must be a non-empty array");
        }
        std::vector<Member> result;
        for (size_t i = 0; i < members.size(); ++i) {
            std::string memberPath = where + "/" + std::to_string(i);
            const Json& member = members[i];
            if (!member.is_object()) fail(memberPath, context + "a member must be an object");
            if (member.contains("value")) {
                fail(memberPath + "/value",
                     context +
                         "members have no values of their own: give them in the "
                         "element's \"value\"");
            }
            onlyKeys(member, memberPath, {"name", "type", "members", "items"}, context);
            std::string name = nameAt(member, memberPath, context + "member: ");
            for (const Member& other : result) {
                if (other.name == name)
                    fail(memberPath + "/name", context + "member '" + name + "' twice");
            }
            std::string memberContext = context + "member '" + name + "': ";
            result.push_back(
                Member{name, hashName(name), typeAt(member, memberPath, memberContext)});
        }
        return result;
    }

    int lineOf(std::string path) const {
        for (;;) {
            auto found = lines_.find(path);
            if (found != lines_.end()) return found->second;
            if (path.empty()) return 1;
            path.erase(path.rfind('/'));
        }
    }

    std::string file_;
    std::map<std::string, int> lines_;
};

void collectNames(const Type& type, std::map<uint32_t, std::string>& seen, const Checker& check,
                  const std::string& path) {
    for (const Member& member : type.members) {
        auto added = seen.emplace(member.uid, member.name);
        if (!added.second && added.first->second != member.name) {
            check.fail(path, "'" + added.first->second + "' and '" + member.name +
                                 "' have the same UID " + hex32(member.uid) + ": rename one");
        }
        collectNames(member.type, seen, check, path);
    }
}

}  // namespace

const Element* ElementFile::find(uint32_t uid) const {
    for (const Element& element : elements) {
        if (element.uid == uid) return &element;
    }
    return nullptr;
}

Element* ElementFile::find(uint32_t uid) {
    for (Element& element : elements) {
        if (element.uid == uid) return &element;
    }
    return nullptr;
}

ElementFile loadElementFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw Failure(kExitElementFile,
                      path + ": cannot read the element file: " + std::strerror(errno));
    }
    std::ostringstream text;
    text << in.rdbuf();
    std::string content = text.str();

    LineCount count;
    LocatingBuilder builder(count);
    const char* begin = content.data();
    nlohmann::json_sax<Json>* sax = &builder;
    bool parsed = Json::sax_parse(CountingIterator(begin, &count),
                                  CountingIterator(begin + content.size(), &count), sax);
    if (!parsed) {
        throw Failure(kExitElementFile,
                      path + ":" + std::to_string(builder.errorLine) + ":" +
                          (builder.error.empty() ? " malformed JSON" : builder.error));
    }

    Checker check(path, builder.lines);
    const Json& root = builder.root;
    ElementFile file;
    if (!root.is_object()) check.fail("", "expected an object with \"elements\"");
    check.onlyKeys(root, "", {"service", "elements"}, "");
    if (root.contains("service")) {
        if (!root["service"].is_string()) {
            check.fail("/service", "\"service\" must be a string, NAME or NAME:MAJOR.MINOR");
        }
        file.service = root["service"].get<std::string>();
        try {
            parseServiceName(file.service);
        } catch (const Failure& e) {
            check.fail("/service", e.what());
        }
    }
    const Json& elements = check.need(root, "", "elements", "");
    if (!elements.is_array() || elements.empty()) {
        check.fail("/elements", "\"elements\" must be a non-empty array");
    }

    std::map<uint32_t, std::string> seen;
    for (size_t i = 0; i < elements.size(); ++i) {
        std::string at = "/elements/" + std::to_string(i);
        const Json& object = elements[i];
        if (!object.is_object()) check.fail(at, "an element must be an object");
        check.onlyKeys(object, at, {"name", "type", "members", "items", "value"}, "");
        Element element;
        element.name = check.nameAt(object, at, "element: ");
        std::string context = "element '" + element.name + "': ";
        element.uid = hashName(element.name);
        auto added = seen.emplace(element.uid, element.name);
        if (!added.second) {
            check.fail(at + "/name", added.first->second == element.name
                                         ? "element '" + element.name + "' twice"
                                         : "'" + added.first->second + "' and '" + element.name +
                                               "' have the same UID " + hex32(element.uid) +
                                               ": rename one");
        }
        element.type = check.typeAt(object, at, context);
        collectNames(element.type, seen, check, at);
        element.value = check.need(object, at, "value", context);
        try {
            encode(element.uid, element.type, element.value);
        } catch (const ValueError& e) {
            check.fail(at + "/value", context + e.what());
        }
        file.names.add(element.name);
        file.names.addType(element.type);
        file.elements.push_back(std::move(element));
    }
    return file;
}

}  // namespace zelcdb
