// Typed JSON values: checked access with its messages, the text form, and the jsoncpp edges.
#include "support/QvValue.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>

using qv::Value;

namespace {

template <class F> std::string ThrownMessage(F&& f) {
    try {
        f();
    } catch (const qv::ValueException& e) {
        return e.what();
    }
    return "<no exception>";
}

Value Num(double d) { return Value::MakeNumber(d); }
Value Str(const wchar_t* s) { return Value::MakeString(s); }

Value DictA1() {
    Value v;
    v.Entry(L"a") = Num(1);
    return v;
}

Json::Value Parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors;
    return root;
}

std::wstring Text(const Value& v) { return v.ToText().c_str(); }

} // namespace

static_assert(!std::is_copy_constructible<Value>::value, "a copy would alias the node");
static_assert(std::is_nothrow_move_constructible<Value>::value, "handles move");

TEST(ValueAccess, TypeNamesAndKinds) {
    Value null;
    EXPECT_EQ(null.Kind(), 0);
    EXPECT_EQ(null.TypeName(), L"null");
    EXPECT_EQ(Num(1).TypeName(), L"number");
    EXPECT_EQ(Value::MakeBool(true).TypeName(), L"bool");
    EXPECT_EQ(Str(L"x").TypeName(), L"string");
    EXPECT_EQ(Value::MakeArray().TypeName(), L"array");
    EXPECT_EQ(DictA1().TypeName(), L"object");
    EXPECT_EQ(DictA1().Kind(), 5);
}

TEST(ValueAccess, WrongKindMessages) {
    EXPECT_EQ(ThrownMessage([] { Value::MakeBool(true).AsNumber(); }),
              "exception: invalid type [number != bool], [true]");
    EXPECT_EQ(ThrownMessage([] { DictA1().Find(L"b"); }), "exception: key not found [b], [{ \"a\" : 1 }]");
    EXPECT_EQ(ThrownMessage([] { Str(L"abc").Size(); }), "exception: invalid type[array|dict != string], [abc]");
    EXPECT_EQ(ThrownMessage([] { DictA1().Element(0); }),
              "exception: invalid type [array != object], [{ \"a\" : 1 }]");
    EXPECT_EQ(ThrownMessage([] {
                  Value a;
                  a.Append(Num(1));
                  a.Find(L"k");
              }),
              "exception: invalid type [dict != array] for [key k], [[ 1 ]]");
    EXPECT_EQ(ThrownMessage([] { Num(2.5).Entry(L"k"); }),
              "exception: invalid type [dict != number] for [key k], [2.5]");
    EXPECT_EQ(ThrownMessage([] { Str(L"s").Append(Num(1)); }), "exception: invalid type [array != string], [s]");
    EXPECT_EQ(ThrownMessage([] { Value().Begin(); }), "exception: invalid type [dict != null], [null]");
    EXPECT_EQ(ThrownMessage([] { Num(1).AsString(); }), "exception: invalid type [string != number], [1]");
    // The message reaches what() as UTF-8.
    EXPECT_EQ(ThrownMessage([] {
                  Value v;
                  v.Entry(L"cl\u00e9") = Num(1);
                  v.Find(L"\u00fc");
              }),
              "exception: key not found [\xC3\xBC], [{ \"cl\xC3\xA9\" : 1 }]");
}

TEST(ValueAccess, NullGrowsIntoDictOrArray) {
    Value dict;
    Value& slot = dict.Entry(L"k");
    EXPECT_TRUE(slot.IsNull());
    EXPECT_EQ(dict.Kind(), Value::kDict);
    EXPECT_EQ(dict.Size(), 1u);

    Value array;
    Value item = Num(4);
    array.Append(std::move(item));
    EXPECT_TRUE(item.IsNull());
    ASSERT_EQ(array.Kind(), Value::kArray);
    EXPECT_EQ(array.Size(), 1u);
    EXPECT_EQ(array.Element(0).AsNumber(), 4);
}

TEST(ValueAccess, DictKeepsInsertionOrderAndExactKeysThroughGrowth) {
    Value dict;
    for (int i = 999; i >= 0; --i) dict.Entry(std::to_wstring(i).c_str()) = Num(i);
    dict.Entry(L"A") = Num(-1);
    dict.Entry(L"a") = Num(-2);
    dict.Entry(L"500") = Num(5000); // existing key: replaced in place
    ASSERT_EQ(dict.Size(), 1002u);
    int expected = 999;
    for (const auto& e : dict) {
        if (expected < 0) break;
        EXPECT_EQ(e.Key(), std::to_wstring(expected).c_str());
        --expected;
    }
    EXPECT_EQ(dict.Find(L"0").AsNumber(), 0);
    EXPECT_EQ(dict.Find(L"500").AsNumber(), 5000);
    EXPECT_EQ(dict.Find(L"A").AsNumber(), -1);
    EXPECT_EQ(dict.Find(L"a").AsNumber(), -2);

    Value array;
    for (int i = 0; i < 100; ++i) array.Append(Num(i));
    EXPECT_EQ(array.Size(), 100u);
    EXPECT_EQ(array.Element(99).AsNumber(), 99);
}

TEST(ValueAccess, AsBoolSetBoolTryGetBool) {
    EXPECT_FALSE(Value().AsBool());
    EXPECT_FALSE(Num(0).AsBool());
    EXPECT_TRUE(Num(0.1).AsBool());
    EXPECT_FALSE(Str(L"").AsBool());
    EXPECT_TRUE(Str(L"0").AsBool());
    EXPECT_FALSE(Value::MakeArray().AsBool());
    EXPECT_FALSE(Value::MakeDict().AsBool());
    EXPECT_TRUE(DictA1().AsBool());

    Value number = Num(7);
    EXPECT_FALSE(number.SetBool(true));
    EXPECT_EQ(number.AsNumber(), 7);

    Value b;
    EXPECT_TRUE(b.SetBool(true));
    EXPECT_EQ(b.Kind(), Value::kBool);
    EXPECT_TRUE(b.SetBool(false));
    bool out = true;
    EXPECT_TRUE(b.TryGetBool(out));
    EXPECT_FALSE(out);
    EXPECT_TRUE(Str(L"x").TryGetBool(out));
    EXPECT_TRUE(out);

    b.Reset();
    EXPECT_TRUE(b.IsNull());
}

TEST(ValueAccess, CloneIsDeepAndMoveEmptiesTheSource) {
    Value original;
    original.Entry(L"list").Append(Str(L"x"));
    Value copy = original.Clone();
    copy.Find(L"list").Append(Num(2));
    copy.Entry(L"extra") = Value::MakeBool(true);
    EXPECT_EQ(Text(original), L"{ \"list\" : [ \"x\" ] }");
    EXPECT_EQ(Text(copy), L"{ \"list\" : [ \"x\", 2 ], \"extra\" : true }");

    Value moved = std::move(copy);
    EXPECT_TRUE(copy.IsNull());
    EXPECT_EQ(moved.Size(), 2u);
}

TEST(ValueText, ContainersQuoteStringsAndEmptyOnesHaveTwoBlanks) {
    Value root;
    root.Entry(L"name") = Str(L"scan \"all\"");
    Value& list = root.Entry(L"list");
    list.Append(Num(1));
    list.Append(Str(L"x"));
    list.Append(Value::MakeBool(false));
    list.Append(Value());
    list.Append(DictA1());
    list.Append(Value::MakeArray());
    root.Entry(L"empty") = Value::MakeDict();
    EXPECT_EQ(Text(root), L"{ \"name\" : \"scan \"all\"\", \"list\" : [ 1, \"x\", false, null, { \"a\" : 1 }, [  ] ], "
                          L"\"empty\" : {  } }");
    EXPECT_EQ(Text(Str(L"plain \"text\"")), L"plain \"text\"");
    EXPECT_EQ(Text(Value()), L"null");
    EXPECT_EQ(Text(Value::MakeArray()), L"[  ]");
    EXPECT_EQ(Text(Value::MakeDict()), L"{  }");
}

TEST(ValueText, NumbersUseSixSignificantDigits) {
    EXPECT_EQ(Text(Num(3.14159265)), L"3.14159");
    EXPECT_EQ(Text(Num(-2)), L"-2");
    EXPECT_EQ(Text(Num(0.1)), L"0.1");
    EXPECT_EQ(Text(Num(1234567)), L"1.23457e+06");
}

TEST(ValueToJson, WholeNumbersLeaveAsIntegers) {
    Json::Value three = Num(3.0).ToJson();
    EXPECT_EQ(three.type(), Json::intValue); // jsoncpp's isDouble() is true for integers too
    EXPECT_TRUE(three.isInt64());
    EXPECT_EQ(three.asInt64(), 3);
    EXPECT_EQ(Num(-3.0).ToJson().asInt64(), -3);
    EXPECT_EQ(Num(9007199254740992.0).ToJson().asInt64(), 9007199254740992LL);
    Json::Value lowest = Num(-9223372036854775808.0).ToJson();
    EXPECT_EQ(lowest.type(), Json::intValue);
    EXPECT_EQ(lowest.asInt64(), std::numeric_limits<Json::Int64>::min());

    for (double d : {3.5, -0.5, 1e20, std::numeric_limits<double>::infinity()}) {
        Json::Value j = Num(d).ToJson();
        EXPECT_EQ(j.type(), Json::realValue) << d;
        EXPECT_EQ(j.asDouble(), d);
    }
    Json::Value nan = Num(std::nan("")).ToJson();
    EXPECT_EQ(nan.type(), Json::realValue);
    EXPECT_TRUE(std::isnan(nan.asDouble()));
}

TEST(ValueToJson, OtherKinds) {
    EXPECT_TRUE(Value().ToJson().isNull());
    EXPECT_EQ(Value::MakeBool(true).ToJson(), Json::Value(true));
    EXPECT_EQ(Str(L"\u00e9t\u00e9").ToJson(), Json::Value("\xC3\xA9t\xC3\xA9"));
    EXPECT_EQ(Value::MakeArray().ToJson(), Json::Value(Json::arrayValue));
    EXPECT_EQ(Value::MakeDict().ToJson(), Json::Value(Json::objectValue));
}

TEST(ValueFromJson, EveryJsonType) {
    EXPECT_TRUE(Value::FromJson(Json::Value()).IsNull());
    EXPECT_TRUE(Value::FromJson(Json::Value(true)).AsBool());
    EXPECT_EQ(Value::FromJson(Json::Value(true)).Kind(), Value::kBool);
    EXPECT_EQ(Value::FromJson(Json::Value(-5)).AsNumber(), -5);
    EXPECT_EQ(Value::FromJson(Json::Value(Json::UInt64(1) << 63)).AsNumber(), 9223372036854775808.0);
    EXPECT_EQ(Value::FromJson(Json::Value(2.5)).AsNumber(), 2.5);
    EXPECT_EQ(Value::FromJson(Json::Value("h\xC3\xA9llo")).AsString(), L"h\u00e9llo");

    Value v = Value::FromJson(Parse(R"({"arr":[1,"a",null,[],{}],"obj":{"k":false},"3.0":3.0})"));
    EXPECT_EQ(Text(v), L"{ \"3.0\" : 3, \"arr\" : [ 1, \"a\", null, [  ], {  } ], \"obj\" : { \"k\" : false } }");
    EXPECT_EQ(v.Find(L"3.0").ToJson().type(), Json::intValue); // a whole double comes back as integer
}

TEST(ValueFromJson, DuplicateKeysKeepTheLaterValue) {
    // jsoncpp itself keeps one member per name, the later one.
    Json::Value parsed = Parse(R"({"a":1,"b":true,"a":2})");
    ASSERT_EQ(parsed.size(), 2u);
    Value v = Value::FromJson(parsed);
    EXPECT_EQ(v.Size(), 2u);
    EXPECT_EQ(v.Find(L"a").AsNumber(), 2);

    // Names are read up to an embedded NUL, so "a\0b" collapses onto "a" and takes its value.
    Json::Value nul(Json::objectValue);
    nul[std::string("a\0b", 3)] = 2;
    nul["a"] = 1;
    ASSERT_EQ(nul.size(), 2u);
    Value collapsed = Value::FromJson(nul);
    EXPECT_EQ(Text(collapsed), L"{ \"a\" : 1 }");
}

TEST(ValueFromJson, InvalidUtf8DoesNotBreakConversion) {
    Value s = Value::FromJson(Json::Value(std::string("ab\xFF\xFE" "cd\xE2\x82")));
    ASSERT_EQ(s.Kind(), Value::kString);
    const std::wstring text = s.AsString().c_str();
    EXPECT_EQ(text.substr(0, 2), L"ab");
    EXPECT_NE(text.find(L"cd"), std::wstring::npos);
    EXPECT_TRUE(s.ToJson().isString());

    // Both malformed names widen to the same key: one entry, holding the later member.
    Json::Value obj(Json::objectValue);
    obj["\xFE"] = 1;
    obj["\xFF"] = 2;
    Value d = Value::FromJson(obj);
    ASSERT_EQ(d.Size(), 1u);
    EXPECT_EQ(d.Begin().Item().AsNumber(), 2);
}

TEST(ValueFromJson, DeepNesting) {
    std::string text;
    const int depth = 200;
    for (int i = 0; i < depth; ++i) text += i % 2 ? "{\"k\":" : "[";
    text += "1";
    for (int i = depth - 1; i >= 0; --i) text += i % 2 ? "}" : "]";
    Json::Value parsed = Parse(text);
    Value v = Value::FromJson(parsed);
    EXPECT_EQ(v.ToJson(), parsed);
    const std::wstring rendered = Text(v);
    EXPECT_EQ(rendered.substr(0, 12), L"[ { \"k\" : [ ");
    Value copy = v.Clone();
    EXPECT_EQ(copy.ToJson(), parsed);
}

TEST(ValueFromJson, RoundTripKeepsTheDocument) {
    Json::Value doc = Parse(R"({
        "enableBackup": true, "reloadStatus": 2, "ratio": -0.25, "big": -123456789012,
        "folder": "C:\\Engines\\\u00e9t\u00e9", "nothing": null,
        "reportHashChain": {"enabled": false, "list": [1, "two", [], {}, [true, null]]},
        "empty": {}
    })");
    Value v = Value::FromJson(doc);
    EXPECT_EQ(v.ToJson(), doc);
    EXPECT_EQ(v.Find(L"folder").AsString(), L"C:\\Engines\\\u00e9t\u00e9");
}
