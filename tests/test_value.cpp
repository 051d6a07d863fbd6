// Typed JSON values: checked access with its messages, the text form, and the jsoncpp edges.
#include "support/QvValue.h"
#include "tests/common/DeepJson.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>

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

TEST(Value, TypeNamesAndWrongKindMessages) {
    EXPECT_EQ(Value().TypeName(), L"null");
    EXPECT_EQ(DictA1().TypeName(), L"object");
    EXPECT_EQ("exception: invalid type [number != bool], [true]",
              ThrownMessage([] { Value::MakeBool(true).AsNumber(); }));
    EXPECT_EQ("exception: key not found [b], [{ \"a\" : 1 }]", ThrownMessage([] { DictA1().Find(L"b"); }));
    EXPECT_EQ("exception: invalid type[array|dict != string], [abc]", ThrownMessage([] { Str(L"abc").Size(); }));
    EXPECT_EQ("exception: invalid type [array != object], [{ \"a\" : 1 }]", ThrownMessage([] { DictA1().Element(0); }));
    EXPECT_EQ("exception: invalid type [dict != number] for [key k], [2.5]",
              ThrownMessage([] { Num(2.5).Entry(L"k"); }));
    EXPECT_EQ("exception: invalid type [array != string], [s]", ThrownMessage([] { Str(L"s").Append(Num(1)); }));
    EXPECT_EQ("exception: invalid type [dict != null], [null]", ThrownMessage([] { Value().Begin(); }));
    EXPECT_EQ("exception: key not found [\xC3\xBC], [{ \"cl\xC3\xA9\" : 1 }]", ThrownMessage([] { // UTF-8 in what()
                  Value v;
                  v.Entry(L"cl\u00e9") = Num(1);
                  v.Find(L"\u00fc");
              }));
}

// "As bool" by kind, as its table has it; "set bool" and "try get bool" never let the kind
// mismatch out; a clone is deep and of the same kind.
TEST(Value, BoolsOfEveryKindAndDeepClones) {
    Value empty = Value::MakeArray(), full = Value::MakeArray();
    full.Append(Num(0));
    const std::pair<Value, bool> cases[] = {{Value(), false},
                                            {Value::MakeBool(true), true},
                                            {Value::MakeBool(false), false},
                                            {Num(0), false},
                                            {Num(-0.5), true},
                                            {Str(L""), false},
                                            {Str(L"0"), true},
                                            {std::move(empty), false},
                                            {std::move(full), true},
                                            {Value::MakeDict(), false},
                                            {DictA1(), true}};
    for (const auto& c : cases) {
        const std::wstring kind = c.first.TypeName().c_str();
        SCOPED_TRACE(std::string(kind.begin(), kind.end()));
        EXPECT_EQ(c.second, c.first.AsBool());
        bool out = !c.second;
        EXPECT_TRUE(c.first.TryGetBool(out));
        EXPECT_EQ(c.second, out);
        const Value copy = c.first.Clone();
        EXPECT_EQ(c.first.TypeName(), copy.TypeName());
        EXPECT_EQ(Text(c.first), Text(copy));
    }
    EXPECT_EQ(Value::MakeArray().TypeName(), L"array");
    Value b = Value::MakeBool(false), n;
    EXPECT_TRUE(b.SetBool(true));
    EXPECT_TRUE(n.SetBool(true));
    EXPECT_EQ(L"true", Text(b));
    EXPECT_EQ(L"true", Text(n));
    Value s = Str(L"x");
    EXPECT_FALSE(s.SetBool(true));
    EXPECT_EQ(L"x", Text(s)) << "a failed set leaves the node as it was";
}

TEST(Value, NullGrowsIntoDictOrArrayOnEntryOrAppend) {
    Value dict;
    EXPECT_TRUE(dict.Entry(L"k").IsNull());
    EXPECT_EQ(Value::kDict, dict.Kind());
    EXPECT_EQ(1u, dict.Size());

    Value array;
    Value item = Num(4);
    array.Append(std::move(item));
    EXPECT_TRUE(item.IsNull());
    ASSERT_EQ(Value::kArray, array.Kind());
    EXPECT_EQ(4, array.Element(0).AsNumber());
}

TEST(Value, TextForm) {
    Value root;
    root.Entry(L"name") = Str(L"scan \"all\"");
    Value& list = root.Entry(L"list");
    for (double d : {1.0, 3.14159265, 1234567.0}) list.Append(Num(d));
    list.Append(Str(L"x"));
    list.Append(Value::MakeBool(false));
    list.Append(Value());
    list.Append(DictA1());
    list.Append(Value::MakeArray());
    root.Entry(L"empty") = Value::MakeDict();
    EXPECT_EQ(L"{ \"name\" : \"scan \"all\"\", \"list\" : [ 1, 3.14159, 1.23457e+06, \"x\", false, null, "
              L"{ \"a\" : 1 }, [  ] ], \"empty\" : {  } }",
              Text(root));
    EXPECT_EQ(L"plain \"text\"", Text(Str(L"plain \"text\"")));
}

TEST(Value, NumbersToJsonAreIntegersWhenWhole) {
    for (double d : {3.0, -3.0, 9007199254740992.0, -9223372036854775808.0}) {
        Json::Value j = Num(d).ToJson();
        EXPECT_EQ(Json::intValue, j.type()) << d; // jsoncpp's isDouble() is true for integers too
        EXPECT_EQ(static_cast<Json::Int64>(d), j.asInt64());
    }
    for (double d : {3.5, -0.5, 1e20, std::numeric_limits<double>::infinity()}) {
        Json::Value j = Num(d).ToJson();
        EXPECT_EQ(Json::realValue, j.type()) << d;
        EXPECT_EQ(d, j.asDouble());
    }
    Json::Value nan = Num(std::nan("")).ToJson();
    EXPECT_EQ(Json::realValue, nan.type());
    EXPECT_TRUE(std::isnan(nan.asDouble()));
}

TEST(Value, FromJsonAndBack) {
    Json::Value doc = Parse(R"({
        "enableBackup": true, "reloadStatus": 2, "ratio": -0.25, "big": -123456789012, "huge": 9223372036854775808,
        "folder": "C:\\Engines\\\u00e9t\u00e9", "nothing": null,
        "reportHashChain": {"enabled": false, "list": [1, "two", [], {}, [true, null]]}, "empty": {}
    })");
    Value v = Value::FromJson(doc);
    EXPECT_EQ(v.Find(L"folder").AsString(), L"C:\\Engines\\\u00e9t\u00e9");
    EXPECT_EQ(9223372036854775808.0, v.Find(L"huge").AsNumber());
    doc["huge"] = 9223372036854775808.0; // past the 64-bit range a whole number stays a double
    EXPECT_EQ(doc, v.ToJson());
}

TEST(Value, DuplicateKeysKeepTheLaterValue) {
    Json::Value parsed = Parse(R"({"a":1,"b":true,"a":2})");
    Value v = Value::FromJson(parsed);
    EXPECT_EQ(2u, v.Size());
    EXPECT_EQ(2, v.Find(L"a").AsNumber());

    // Names are read up to an embedded NUL, so "a\0b" collapses onto "a" and takes its value.
    Json::Value nul(Json::objectValue);
    nul[std::string("a\0b", 3)] = 2;
    nul["a"] = 1;
    EXPECT_EQ(L"{ \"a\" : 1 }", Text(Value::FromJson(nul)));
}

TEST(Value, InvalidUtf8DoesNotBreakConversion) {
    Value s = Value::FromJson(Json::Value(std::string("ab\xFF\xFE"
                                                      "cd\xE2\x82")));
    ASSERT_EQ(Value::kString, s.Kind());
    const std::wstring text = s.AsString().c_str();
    EXPECT_EQ(L"ab", text.substr(0, 2));
    EXPECT_NE(std::wstring::npos, text.find(L"cd"));
    EXPECT_TRUE(s.ToJson().isString());

    // Both malformed names widen to the same key: one entry, holding the later member.
    Json::Value obj(Json::objectValue);
    obj["\xFE"] = 1;
    obj["\xFF"] = 2;
    Value d = Value::FromJson(obj);
    ASSERT_EQ(1u, d.Size());
    EXPECT_EQ(2, d.Begin().Item().AsNumber());
}

TEST(Value, DeepNesting) {
    std::string text;
    const int depth = 200;
    for (int i = 0; i < depth; ++i) text += i % 2 ? "{\"k\":" : "[";
    text += "1";
    for (int i = depth - 1; i >= 0; --i) text += i % 2 ? "}" : "]";
    Json::Value parsed = Parse(text);
    Value v = Value::FromJson(parsed);
    EXPECT_EQ(parsed, v.ToJson());
    EXPECT_EQ(L"[ { \"k\" : [ ", Text(v).substr(0, 12));
    EXPECT_EQ(parsed, v.Clone().ToJson());
}

// Both conversions take at most 256 levels of arrays and objects; one more is refused with a
// message, and so is any depth a document from outside may have, on a host thread's 1 MiB stack.
TEST(Value, NestingBeyondTheLimitIsRefusedBothWays) {
    const std::string tooDeep = "exception: nesting too deep [limit = 256 levels]";
    Json::Value limit = testing_support::NestedEnabled(256);
    Value v = Value::FromJson(limit);
    EXPECT_EQ(limit, v.ToJson());
    Json::Value over = testing_support::NestedEnabled(257);
    EXPECT_EQ(tooDeep, ThrownMessage([&] { Value::FromJson(over); }));
    Json::Value array(Json::arrayValue);
    array.append(limit);
    EXPECT_EQ(tooDeep, ThrownMessage([&] { Value::FromJson(array); }));

    Value* innermost = &v;
    while (innermost->Kind() == Value::kDict) innermost = &innermost->Find(L"enabled");
    *innermost = Value::MakeArray();
    EXPECT_EQ(tooDeep, ThrownMessage([&] { v.ToJson(); }));

    for (int levels : {10000, 100000}) {
        Json::Value deep = testing_support::NestedEnabled(levels);
        std::string message;
        ASSERT_TRUE(
            testing_support::RunWithStack(1u << 20, [&] { message = ThrownMessage([&] { Value::FromJson(deep); }); }));
        EXPECT_EQ(tooDeep, message) << levels;
        testing_support::ReleaseDeep(deep);
    }
}

} // namespace
