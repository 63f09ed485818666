// zelcdb's conversions between JSON and SBP data, through the library's real serializer and
// deserializer: what a user types must reach the peer as the type it expects, and what the
// peer sends must print as the JSON a script compares.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "Library.h"
#include "SbpData.h"

namespace zelcdb {
namespace {

Type scalar(Kind kind) {
    Type type;
    type.kind = kind;
    return type;
}

Type arrayOf(Kind items) {
    Type type;
    type.kind = Kind::Array;
    type.items = items;
    return type;
}

Type structure(std::initializer_list<std::pair<const char*, Type>> members) {
    Type type;
    type.kind = Kind::Structure;
    for (const auto& [name, memberType] : members) {
        type.members.push_back(Member{name, hashName(name), memberType});
    }
    return type;
}

// Encodes, decodes with the library, and gives back the printed JSON.
Json roundTrip(const Type& type, const Json& value, const Names& names = Names()) {
    std::vector<uint8_t> bytes = encode(hashName("e"), type, value);
    Value decoded = decode(bytes.data(), bytes.size());
    EXPECT_EQ(decoded.uid, hashName("e"));
    EXPECT_FALSE(mismatch(decoded, type)) << *mismatch(decoded, type);
    return toJson(decoded, names);
}

std::string refusal(const Type& type, const Json& value) {
    try {
        encode(1, type, value);
    } catch (const ValueError& e) {
        return e.what();
    }
    return "accepted";
}

TEST(SbpData, EveryScalarKindSurvivesTheRoundTripAtItsLimits) {
    struct Case {
        Kind kind;
        Json value;
    } cases[] = {
        {Kind::Boolean, true},        {Kind::Byte, -128},      {Kind::Byte, 127},
        {Kind::Short, -32768},        {Kind::Short, 32767},    {Kind::Int, INT32_MIN},
        {Kind::Int, INT32_MAX},       {Kind::Long, INT64_MIN}, {Kind::Long, INT64_MAX},
        {Kind::Float, 2.3},  // printed as 2.3, not as the double nearest the float
        {Kind::Float, -0.1},          {Kind::Double, 0.1},     {Kind::Bytes, "00ff10"},
        {Kind::String, "front axle"}, {Kind::String, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(kindName(c.kind)) + " " + c.value.dump());
        EXPECT_EQ(roundTrip(scalar(c.kind), c.value), c.value);
    }
}

TEST(SbpData, ValuesThatDoNotFitTheirTypeAreRefusedWithWhereAndWhy) {
    struct Case {
        Type type;
        Json value;
        const char* message;
    } cases[] = {
        {scalar(Kind::Byte), 128, "expects a byte (an integer from -128 to 127), got 128"},
        {scalar(Kind::Short), -32769, "expects a short (an integer from -32768 to 32767)"},
        {scalar(Kind::Int), 2147483648u, "expects an int (an integer from -2147483648"},
        {scalar(Kind::Int), 1.5, "got 1.5"},
        {scalar(Kind::Long), 18446744073709551615u, "expects a long"},
        {scalar(Kind::Double), "north", "expects a double, got \"north\""},
        {scalar(Kind::Boolean), 1, "expects a boolean, got 1"},
        {scalar(Kind::String), 5, "expects a string, got 5"},
        {scalar(Kind::String), "Zo\xc3\xab", "only ASCII strings can be sent"},
        {scalar(Kind::Bytes), "abc", "odd number of digits"},
        {arrayOf(Kind::Float), Json::array({1, "x"}), "[1]: expects a float, got \"x\""},
        {arrayOf(Kind::Int), 3, "expects an array of int (a JSON array), got 3"},
        {structure({{"a", scalar(Kind::Int)}}), Json::object(), "missing member 'a'"},
        {structure({{"a", scalar(Kind::Int)}, {"b", scalar(Kind::Int)}}),
         Json{{"a", 1}, {"b", 2}, {"c", 3}}, "no member 'c' (its members: a, b)"},
        {structure({{"p", structure({{"x", scalar(Kind::Double)}})}}), Json{{"p", {{"x", true}}}},
         "p.x: expects a double, got true"},
        // Peers built on this SDK cannot read an empty container inside another one.
        {structure({{"t", arrayOf(Kind::Int)}}), Json{{"t", Json::array()}},
         "t: an empty array inside another value cannot be read back"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value.dump(-1, ' ', false, Json::error_handler_t::replace));
        EXPECT_NE(refusal(c.type, c.value).find(c.message), std::string::npos)
            << refusal(c.type, c.value);
    }
}

TEST(SbpData, ContainersKeepTheirMembersAndElementsInOrder) {
    Type position = structure({{"latitude", scalar(Kind::Double)},
                               {"longitude", scalar(Kind::Double)},
                               {"heading", scalar(Kind::Short)}});
    Names names;
    names.addType(position);
    // Members are written in the type's order, whatever the order of the JSON object.
    Json given = Json{{"heading", 90}, {"latitude", 48.1}, {"longitude", 11.5}};
    EXPECT_EQ(roundTrip(position, given, names).dump(),
              R"({"latitude":48.1,"longitude":11.5,"heading":90})");
    EXPECT_EQ(roundTrip(arrayOf(Kind::Short), Json::array({3, -1, 2})), Json::array({3, -1, 2}));
    EXPECT_EQ(roundTrip(arrayOf(Kind::Int), Json::array()), Json::array());

    Type destinations;
    destinations.kind = Kind::StructureArray;
    // Each element's members in the type's order and kinds, not as its JSON would suggest.
    destinations.members =
        structure({{"label", scalar(Kind::String)}, {"km", scalar(Kind::Short)}}).members;
    names.addType(destinations);
    Json list = Json::array({{{"km", 12}, {"label", "Home"}}, {{"label", "Office"}, {"km", 3}}});
    EXPECT_EQ(roundTrip(destinations, list, names).dump(),
              R"([{"label":"Home","km":12},{"label":"Office","km":3}])");
}

TEST(SbpData, UnknownNamesPrintAsUidsAndUidKeysAreWrittenOneWay) {
    Type pair = structure({{"x", scalar(Kind::Int)}});
    std::vector<uint8_t> bytes = encode(hashName("point"), pair, Json{{"x", 1}});
    Value decoded = decode(bytes.data(), bytes.size());
    Names none;
    char expected[64];
    std::snprintf(expected, sizeof expected, R"({"0x%08x":{"0x%08x":1}})",
                  unsigned(hashName("point")), unsigned(hashName("x")));
    EXPECT_EQ(toLine(decoded, none).dump(), expected);

    Names names;
    Json normal = normaliseKeys(Json{{"0XaB", 1}, {"x", {{"0x1", 2}}}}, names);
    EXPECT_EQ(normal.dump(), R"({"0x000000ab":1,"x":{"0x00000001":2}})");
    EXPECT_EQ(names.keyFor(hashName("x")), "x");
    EXPECT_EQ(names.uidFor("0x000000ab"), 0xABu);

    struct {
        const char* key;
        bool isUid;
    } keys[] = {{"0x1", true},          {"0xffffffff", true}, {"0x", false},
                {"0x123456789", false}, {"0xg1", false},      {"12", false}};
    for (const auto& k : keys) EXPECT_EQ(Names::isUidKey(k.key), k.isUid) << k.key;
}

TEST(SbpData, TypesInferredFromJsonUseTheNarrowestNumberThatHoldsEveryElement) {
    EXPECT_EQ(inferType(Json(7)).kind, Kind::Int);
    EXPECT_EQ(inferType(Json(3000000000u)).kind, Kind::Long);
    EXPECT_EQ(inferType(Json(-3000000000)).kind, Kind::Long);
    EXPECT_EQ(inferType(Json(0.5)).kind, Kind::Double);
    EXPECT_EQ(inferType(Json::array({1, 2.5})).items, Kind::Double);
    EXPECT_EQ(inferType(Json::array({1, 3000000000u})).items, Kind::Long);
    EXPECT_EQ(inferType(Json::array({3000000000u, 2.5})).items, Kind::Double);
    EXPECT_EQ(inferType(Json::array({true, false})).items, Kind::Boolean);
    Type object = inferType(Json{{"a", 1}, {"b", "x"}});
    ASSERT_EQ(object.members.size(), 2u);
    EXPECT_EQ(object.members[0].uid, hashName("a"));
    EXPECT_EQ(object.members[1].type.kind, Kind::String);
    EXPECT_THROW(inferType(Json::array({"a"})), ValueError);
    EXPECT_THROW(inferType(Json()), ValueError);
}

TEST(SbpData, ADecodedValueGivesTheTypeToEncodeTheNextOneWith) {
    Type destinations;
    destinations.kind = Kind::StructureArray;
    destinations.members = structure({{"label", scalar(Kind::String)}}).members;
    std::vector<uint8_t> bytes = encode(9, destinations, Json::array({{{"label", "Home"}}}));
    Names names;
    names.add("label");
    Type learnt = typeOf(decode(bytes.data(), bytes.size()), names);
    EXPECT_EQ(learnt.kind, Kind::StructureArray);
    ASSERT_EQ(learnt.members.size(), 1u);
    EXPECT_EQ(learnt.members[0].name, "label");
    EXPECT_EQ(refusal(learnt, Json::array({{{"label", 1}}})), "[0].label: expects a string, got 1");

    // An empty array of structures tells nothing of its members: each element then speaks
    // for itself.
    bytes = encode(9, destinations, Json::array());
    learnt = typeOf(decode(bytes.data(), bytes.size()), names);
    EXPECT_FALSE(learnt.membersKnown);
    EXPECT_EQ(roundTrip(learnt, Json::array({{{"label", "Work"}}}), names),
              Json::array({{{"label", "Work"}}}));
}

TEST(SbpData, MismatchNamesTheFirstDifference) {
    Type position = structure({{"lat", scalar(Kind::Double)}, {"heading", scalar(Kind::Short)}});
    auto check = [&](const Type& sent, const Json& value, const Type& expected) {
        std::vector<uint8_t> bytes = encode(1, sent, value);
        return mismatch(decode(bytes.data(), bytes.size()), expected).value_or("none");
    };
    EXPECT_EQ(check(scalar(Kind::Double), 1.5, scalar(Kind::Int)), "expects an int, got a double");
    EXPECT_EQ(check(arrayOf(Kind::Double), Json::array({1}), arrayOf(Kind::Float)),
              "expects an array of float, got an array of double");
    EXPECT_EQ(check(structure({{"lat", scalar(Kind::Double)}}), Json{{"lat", 1}}, position),
              "missing member 'heading'");
    EXPECT_EQ(check(structure({{"lat", scalar(Kind::Float)}, {"heading", scalar(Kind::Short)}}),
                    Json{{"lat", 1}, {"heading", 2}}, position),
              "lat: expects a double, got a float");
    EXPECT_EQ(check(structure({{"lat", scalar(Kind::Double)},
                               {"heading", scalar(Kind::Short)},
                               {"extra", scalar(Kind::Int)}}),
                    Json{{"lat", 1}, {"heading", 2}, {"extra", 3}}, position),
              "members other than lat, heading");
    EXPECT_EQ(check(position, Json{{"lat", 1}, {"heading", 2}}, position), "none");
}

TEST(SbpData, UndecodablePayloadsAreValueErrors) {
    const uint8_t truncated[] = {0x00, 0x00, 0x00, 0x01, 0x85, 0x00};
    EXPECT_THROW(decode(truncated, sizeof truncated), ValueError);
    EXPECT_THROW(decode(truncated, 0), ValueError);
}

}  // namespace
}  // namespace zelcdb
