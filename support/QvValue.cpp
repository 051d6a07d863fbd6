#include "support/QvValue.h"
#include "support/QvValueNodes.h"

#include <cstdarg>
#include <cstdlib>
#include <cwchar>

namespace qv {

ValueException::ValueException(const StringW& message) : std::runtime_error(message.ToUtf8()) {}
ValueException::ValueException(const wchar_t* message) : ValueException(StringW(message)) {}

ValueAllocator DefaultValueAllocator() { return ValueAllocator{&std::malloc, &std::realloc, &std::free}; }

void ThrowValueException(const wchar_t* format, ...) {
    StringW message;
    va_list args;
    va_start(args, format);
    message.FormatV(format, args);
    va_end(args);
    throw ValueException(message);
}

// ---- nodes ----

Value::ArrayValue::ArrayValue() : items(nullptr) {
    void* block = allocator.allocate(sizeof(GrowArray<Value>));
    if (!block) throw std::bad_alloc();
    items = static_cast<GrowArray<Value>*>(block);
    try {
        items->Init(allocator, kInitialCapacity);
    } catch (...) {
        allocator.release(block);
        throw;
    }
}

Value::ArrayValue::~ArrayValue() {
    items->Destroy();
    allocator.release(items);
}

Value::DictValue::DictValue() : keysOwned(1) {
    keys.Init(allocator, kInitialCapacity);
    try {
        values.Init(allocator, kInitialCapacity);
    } catch (...) {
        keys.Destroy();
        throw;
    }
}

Value::DictValue::~DictValue() {
    values.Destroy();
    keys.Destroy();
}

uint64_t Value::DictValue::IndexOf(const wchar_t* key) const {
    const wchar_t* wanted = key ? key : L"";
    for (uint64_t i = 0; i < keys.count; ++i) {
        if (wcscmp(keys.items[i].c_str(), wanted) == 0) return i;
    }
    return npos;
}

Value& Value::DictValue::Add(StringW&& key, Value&& item) {
    // Make room in both arrays first so they never get out of step.
    keys.GrowIfFull();
    values.GrowIfFull();
    keys.PushUnchecked(std::move(key));
    return values.PushUnchecked(std::move(item));
}

template <bool Const> const StringW& Value::IteratorT<Const>::Key() const { return dict_->keys.items[position_]; }

template <bool Const> typename Value::IteratorT<Const>::Handle& Value::IteratorT<Const>::Item() const {
    return dict_->values.items[position_];
}

template class Value::IteratorT<false>;
template class Value::IteratorT<true>;

// ---- handle ----

Value& Value::operator=(Value&& other) noexcept {
    if (this != &other) {
        Reset();
        node_ = other.node_;
        other.node_ = nullptr;
    }
    return *this;
}

Value Value::MakeBool(bool b) { return Value(new BoolValue(b)); }
Value Value::MakeNumber(double d) { return Value(new NumberValue(d)); }
Value Value::MakeArray() { return Value(new ArrayValue()); }
Value Value::MakeDict() { return Value(new DictValue()); }

Value Value::MakeString(const wchar_t* text) {
    Value result(new StringValue());
    static_cast<StringValue*>(result.node_)->value.Assign(text ? text : L"");
    return result;
}

Value Value::Clone() const {
    switch (Kind()) {
    case kNumber:
        return MakeNumber(static_cast<const NumberValue*>(node_)->value);
    case kBool:
        return MakeBool(static_cast<const BoolValue*>(node_)->value != 0);
    case kString: {
        const StringW& text = static_cast<const StringValue*>(node_)->value;
        Value result(new StringValue());
        static_cast<StringValue*>(result.node_)->value.Assign(text.c_str(), text.Length());
        return result;
    }
    case kArray: {
        Value result = MakeArray();
        const GrowArray<Value>& items = *static_cast<const ArrayValue*>(node_)->items;
        for (uint64_t i = 0; i < items.count; ++i) result.Append(items.items[i].Clone());
        return result;
    }
    case kDict: {
        Value result = MakeDict();
        const DictValue& source = *static_cast<const DictValue*>(node_);
        DictValue& target = *static_cast<DictValue*>(result.node_);
        for (uint64_t i = 0; i < source.Count(); ++i) {
            target.Add(StringW(source.keys.items[i]), source.values.items[i].Clone());
        }
        return result;
    }
    default:
        return Value();
    }
}

void Value::Reset() noexcept {
    delete node_;
    node_ = nullptr;
}

int Value::Kind() const noexcept { return node_ ? node_->Kind() : kNull; }

StringW Value::TypeName() const {
    switch (Kind()) {
    case kNull:
        return StringW(L"null");
    case kNumber:
        return StringW(L"number");
    case kBool:
        return StringW(L"bool");
    case kString:
        return StringW(L"string");
    case kArray:
        return StringW(L"array");
    case kDict:
        return StringW(L"object");
    default:
        return StringW(L"unknown");
    }
}

void Value::ThrowKind(const wchar_t* format) const {
    ThrowValueException(format, TypeName().c_str(), ToText().c_str());
}

void Value::ThrowKeyed(const wchar_t* format, const wchar_t* key) const {
    ThrowValueException(format, TypeName().c_str(), key ? key : L"", ToText().c_str());
}

bool Value::AsBool() const {
    switch (Kind()) {
    case kBool:
        return static_cast<const BoolValue*>(node_)->value != 0;
    case kNumber:
        return static_cast<const NumberValue*>(node_)->value != 0.0;
    case kString:
        return static_cast<const StringValue*>(node_)->value.Length() != 0;
    case kArray:
    case kDict:
        return Size() != 0;
    default:
        return false;
    }
}

double Value::AsNumber() const {
    if (Kind() != kNumber) ThrowKind(L"exception: invalid type [number != %s], [%s]");
    return static_cast<const NumberValue*>(node_)->value;
}

const StringW& Value::AsString() const {
    if (Kind() != kString) ThrowKind(L"exception: invalid type [string != %s], [%s]");
    return static_cast<const StringValue*>(node_)->value;
}

uint64_t Value::Size() const {
    switch (Kind()) {
    case kArray:
        return static_cast<const ArrayValue*>(node_)->items->count;
    case kDict:
        return static_cast<const DictValue*>(node_)->Count();
    default:
        ThrowKind(L"exception: invalid type[array|dict != %s], [%s]");
    }
}

Value& Value::Element(uint64_t i) {
    if (Kind() != kArray) ThrowKind(L"exception: invalid type [array != %s], [%s]");
    return static_cast<ArrayValue*>(node_)->items->items[i];
}

const Value& Value::Element(uint64_t i) const { return const_cast<Value*>(this)->Element(i); }

Value::DictValue& Value::DictForAccess(const wchar_t* key) const {
    if (Kind() != kDict) ThrowKeyed(L"exception: invalid type [dict != %s] for [key %s], [%s]", key);
    return *static_cast<DictValue*>(node_);
}

Value& Value::Find(const wchar_t* key) {
    DictValue& dict = DictForAccess(key);
    uint64_t at = dict.IndexOf(key);
    if (at == DictValue::npos) {
        ThrowValueException(L"exception: key not found [%s], [%s]", key ? key : L"", ToText().c_str());
    }
    return dict.values.items[at];
}

const Value& Value::Find(const wchar_t* key) const { return const_cast<Value*>(this)->Find(key); }

Value& Value::Entry(const wchar_t* key) {
    if (!node_) *this = MakeDict();
    DictValue& dict = DictForAccess(key);
    uint64_t at = dict.IndexOf(key);
    if (at != DictValue::npos) return dict.values.items[at];
    return dict.Add(StringW(key ? key : L""), Value());
}

Value& Value::Append(Value&& item) {
    if (!node_) *this = MakeArray();
    if (Kind() != kArray) ThrowKind(L"exception: invalid type [array != %s], [%s]");
    return static_cast<ArrayValue*>(node_)->items->Push(std::move(item));
}

Value::Iterator Value::Begin() {
    if (Kind() != kDict) ThrowKind(L"exception: invalid type [dict != %s], [%s]");
    return Iterator(static_cast<DictValue*>(node_), 0);
}

Value::Iterator Value::End() {
    if (Kind() != kDict) ThrowKind(L"exception: invalid type [dict != %s], [%s]");
    DictValue* dict = static_cast<DictValue*>(node_);
    return Iterator(dict, dict->Count());
}

Value::ConstIterator Value::Begin() const {
    Iterator it = const_cast<Value*>(this)->Begin();
    return ConstIterator(static_cast<DictValue*>(node_), it.Position());
}

Value::ConstIterator Value::End() const {
    Iterator it = const_cast<Value*>(this)->End();
    return ConstIterator(static_cast<DictValue*>(node_), it.Position());
}

bool Value::SetBool(bool b) {
    try {
        if (!node_) {
            *this = MakeBool(b);
        } else if (Kind() == kBool) {
            static_cast<BoolValue*>(node_)->value = b ? 1 : 0;
        } else {
            ThrowKind(L"exception: invalid type [bool != %s], [%s]");
        }
        return true;
    } catch (const ValueException&) {
        return false;
    }
}

bool Value::TryGetBool(bool& out) const {
    try {
        out = AsBool();
        return true;
    } catch (const ValueException&) {
        return false;
    }
}

} // namespace qv
