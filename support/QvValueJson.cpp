// Conversions between qv::Value and jsoncpp's Json::Value, UTF-8 on the jsoncpp side.
#include "support/QvValue.h"
#include "support/QvValueNodes.h"

#include <windows.h>
#include <json/json.h>

#include <cmath>
#include <cstring>
#include <string>

namespace qv {

namespace {

bool IsPlainAscii(const char* text, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == 0 || c >= 0x80) return false;
    }
    return true;
}

// Fills `out` from UTF-8 text. Plain ASCII is widened in place; anything else goes through the
// system conversion, which turns malformed sequences into U+FFFD rather than failing.
void AssignFromUtf8(StringW& out, const char* text, size_t length) {
    if (IsPlainAscii(text, length)) {
        if (out.Capacity() < length || !out.HasStorage()) out.Reserve(length);
        wchar_t* chars = out.Buffer();
        for (size_t i = 0; i < length; ++i) chars[i] = static_cast<wchar_t>(text[i]);
        out.SetLength(length);
        return;
    }
    const int n = MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(length), nullptr, 0);
    const size_t count = n > 0 ? static_cast<size_t>(n) : 0;
    if (out.Capacity() < count || !out.HasStorage()) out.Reserve(count);
    if (count) (void)MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(length), out.Buffer(), n);
    out.SetLength(count);
}

// Writes the UTF-8 form of `text` into `out`, reusing its storage.
void ToUtf8(const StringW& text, std::string& out) {
    const wchar_t* chars = text.c_str();
    const size_t length = text.Length();
    bool ascii = true;
    for (size_t i = 0; i < length && ascii; ++i) ascii = chars[i] < 0x80;
    if (!ascii) {
        out = text.ToUtf8();
        return;
    }
    out.resize(length);
    for (size_t i = 0; i < length; ++i) out[i] = static_cast<char>(chars[i]);
}

[[noreturn]] void ThrowTooDeep() {
    StringW message;
    message.Format(L"exception: nesting too deep [limit = %u levels]", Value::kMaxDepth);
    throw ValueException(message);
}

bool FitsInt64(double whole) { return whole >= -9223372036854775808.0 && whole < 9223372036854775808.0; }

} // namespace

Value Value::FromJson(const Json::Value& json) { return FromJsonAt(json, 0); }

Value Value::FromJsonAt(const Json::Value& json, unsigned depth) {
    if (json.isBool()) return MakeBool(json.asBool());
    if (json.isNumeric()) return MakeNumber(json.asDouble());
    if (json.isDouble()) return MakeNumber(json.asDouble());
    if (json.isString()) {
        Value result(new StringValue());
        const char* text = json.asCString();
        if (text) AssignFromUtf8(static_cast<StringValue*>(result.node_)->value, text, strlen(text));
        return result;
    }
    if ((json.isArray() || json.isObject()) && depth >= kMaxDepth) ThrowTooDeep();
    if (json.isArray()) {
        Value result = MakeArray();
        for (Json::ArrayIndex i = 0; i < json.size(); ++i) result.Append(FromJsonAt(json[i], depth + 1));
        return result;
    }
    if (json.isObject()) {
        Value result = MakeDict();
        DictValue& dict = *static_cast<DictValue*>(result.node_);
        for (Json::ValueConstIterator it = json.begin(); it != json.end(); ++it) {
            const char* end = nullptr;
            const char* name = it.memberName(&end);
            if (!name) continue;
            const size_t fullLength = static_cast<size_t>(end - name);
            if (IsPlainAscii(name, fullLength)) {
                // jsoncpp keeps members in a map, so their names are unique, and ASCII names stay
                // unique once widened: the key cannot be in the dict yet and is appended without
                // Entry's linear search (which would make large documents quadratic).
                StringW key;
                AssignFromUtf8(key, name, fullLength);
                dict.Add(std::move(key), FromJsonAt(*it, depth + 1));
                continue;
            }
            // Other names can collide after conversion: one with an embedded NUL is read up to
            // the NUL (and takes the value stored under that shorter name), and malformed UTF-8
            // widens to U+FFFD. Entry gives the documented outcome: the later member wins.
            const size_t length = strnlen(name, fullLength);
            StringW key;
            AssignFromUtf8(key, name, length);
            const Json::Value* member = json.find(name, name + length);
            Value converted = member ? FromJsonAt(*member, depth + 1) : Value();
            result.Entry(key.c_str()) = std::move(converted);
        }
        return result;
    }
    return Value();
}

// Converts into `out` in place (a dict member is filled where operator[] put it) and shares one
// narrow buffer across the whole tree, so a large document costs little beyond jsoncpp's own work.
void Value::ToJsonInto(Json::Value& out, std::string& buffer, unsigned depth) const {
    const int kind = Kind();
    if ((kind == kArray || kind == kDict) && depth >= kMaxDepth) ThrowTooDeep();
    switch (kind) {
    case kBool:
        out = Json::Value(static_cast<const BoolValue*>(node_)->value != 0);
        break;
    case kNumber: {
        const double x = static_cast<const NumberValue*>(node_)->value;
        const double whole = std::floor(x);
        const double d = std::fabs(x - whole);
        // True only for d == 0 (NaN fails it), so whole numbers leave as integers and all others,
        // NaN and infinities included, as doubles. Whole numbers beyond the 64-bit range stay
        // doubles: converting them would be undefined.
        if (d * 0.00001 >= d && FitsInt64(whole)) {
            out = Json::Value(static_cast<Json::Int64>(whole));
        } else {
            out = Json::Value(x);
        }
        break;
    }
    case kString:
        ToUtf8(AsString(), buffer);
        out = Json::Value(buffer.c_str());
        break;
    case kArray: {
        out = Json::Value(Json::arrayValue);
        const GrowArray<Value>& items = *static_cast<const ArrayValue*>(node_)->items;
        for (uint64_t i = 0; i < items.count; ++i) {
            Json::Value item;
            items.items[i].ToJsonInto(item, buffer, depth + 1);
            out.append(std::move(item));
        }
        break;
    }
    case kDict: {
        out = Json::Value(Json::objectValue);
        const DictValue& dict = *static_cast<const DictValue*>(node_);
        for (uint64_t i = 0; i < dict.Count(); ++i) {
            ToUtf8(dict.keys.items[i], buffer);
            dict.values.items[i].ToJsonInto(out[buffer], buffer, depth + 1);
        }
        break;
    }
    default:
        out = Json::Value(Json::nullValue);
        break;
    }
}

Json::Value Value::ToJson() const {
    Json::Value result;
    std::string buffer;
    ToJsonInto(result, buffer, 0);
    return result;
}

} // namespace qv
