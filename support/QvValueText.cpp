#include "support/QvValue.h"
#include "support/QvValueNodes.h"

#include <sstream>
#include <string>

namespace qv {

namespace {

void WriteText(std::wostream& out, const Value& value);

// Inside arrays and dicts a string is set off by quotes; nothing is escaped, since the text only
// ever ends up in exception messages.
void WriteNested(std::wostream& out, const Value& value) {
    if (value.Kind() == Value::kString) {
        out << L'"' << value.AsString().c_str() << L'"';
    } else {
        WriteText(out, value);
    }
}

void WriteText(std::wostream& out, const Value& value) {
    switch (value.Kind()) {
    case Value::kBool:
        out << (value.AsBool() ? L"true" : L"false");
        break;
    case Value::kNumber:
        out << value.AsNumber();
        break;
    case Value::kString:
        out << value.AsString().c_str();
        break;
    case Value::kArray: {
        out << L"[ ";
        const uint64_t count = value.Size();
        for (uint64_t i = 0; i < count; ++i) {
            if (i) out << L", ";
            WriteNested(out, value.Element(i));
        }
        out << L" ]";
        break;
    }
    case Value::kDict: {
        out << L"{ ";
        bool first = true;
        for (const auto& entry : value) {
            if (!first) out << L", ";
            first = false;
            const StringW& key = entry.Key();
            out << L'"' << key.c_str() << L"\" : ";
            // Looked up again by key: quadratic, but only messages are ever built from this.
            WriteNested(out, value.Find(key.c_str()));
        }
        out << L" }";
        break;
    }
    default:
        out << L"null";
        break;
    }
}

} // namespace

StringW Value::ToText() const {
    std::wostringstream out;
    WriteText(out, *this);
    const std::wstring text = out.str();
    return StringW(text.c_str(), text.size());
}

} // namespace qv
