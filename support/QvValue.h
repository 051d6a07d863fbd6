#pragma once
// Typed JSON values: the plug-in keeps settings and event data as a small tree of its own and
// meets jsoncpp only at the edges (FromJson / ToJson). Every accessor checks the kind of the node
// it is applied to and throws ValueException naming the expected kind, the actual kind and the
// whole node as text, so a settings document of the wrong shape is reported, not misread.
#include "sdk/StringT.h"

#include <json/forwards.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace qv {

class ValueException : public std::runtime_error {
public:
    // The wide message is kept as UTF-8, which is what what() returns.
    explicit ValueException(const StringW& message);
    explicit ValueException(const wchar_t* message);
};

// The allocation functions a node was created with; it uses them for its own containers.
struct ValueAllocator {
    void* (*allocate)(size_t bytes);
    void* (*reallocate)(void* block, size_t bytes);
    void (*release)(void* block);
};

// A handle owning one heap node, or none: a handle without a node is the JSON null.
// Handles move but do not copy (a copy would alias the node); Clone() makes a deep copy.
class Value {
public:
    enum : int { kNull = 0, kNumber = 1, kBool = 2, kString = 3, kArray = 4, kDict = 5 };

    class BaseValue;
    class NumberValue;
    class BoolValue;
    class StringValue;
    class ArrayValue;
    class DictValue;

    // Position in a dict, in insertion order.
    template <bool Const> class IteratorT {
    public:
        using Handle = typename std::conditional<Const, const Value, Value>::type;
        IteratorT(DictValue* dict, uint64_t position) : dict_(dict), position_(position) {}
        const StringW& Key() const;
        Handle& Item() const;
        uint64_t Position() const { return position_; }
        IteratorT& operator++() {
            ++position_;
            return *this;
        }
        // Range-for hands out the iterator itself: for (auto& e : dict) e.Key(), e.Item().
        const IteratorT& operator*() const { return *this; }
        bool operator==(const IteratorT& o) const { return dict_ == o.dict_ && position_ == o.position_; }
        bool operator!=(const IteratorT& o) const { return !(*this == o); }

    private:
        DictValue* dict_;
        uint64_t position_;
    };
    using Iterator = IteratorT<false>;
    using ConstIterator = IteratorT<true>;

    Value() noexcept : node_(nullptr) {}
    Value(Value&& other) noexcept : node_(other.node_) { other.node_ = nullptr; }
    Value& operator=(Value&& other) noexcept;
    Value(const Value&) = delete;
    Value& operator=(const Value&) = delete;
    ~Value() { Reset(); }

    static Value MakeBool(bool b);
    static Value MakeNumber(double d);
    static Value MakeString(const wchar_t* text);
    static Value MakeString(const StringW& text) { return MakeString(text.c_str()); }
    static Value MakeArray();
    static Value MakeDict();
    Value Clone() const;

    void Reset() noexcept;
    int Kind() const noexcept;
    bool IsNull() const noexcept { return node_ == nullptr; }
    StringW TypeName() const;

    // Truthiness; never throws.
    bool AsBool() const;
    double AsNumber() const;
    const StringW& AsString() const;

    uint64_t Size() const;
    // The index is not checked against the size.
    Value& Element(uint64_t i);
    const Value& Element(uint64_t i) const;
    Value& Find(const wchar_t* key);
    const Value& Find(const wchar_t* key) const;
    // Get-or-insert; a null handle becomes an empty dict first. The reference stays valid until
    // the next insertion into the same dict.
    Value& Entry(const wchar_t* key);
    // A null handle becomes an empty array first; the argument is left null.
    Value& Append(Value&& item);

    Iterator Begin();
    Iterator End();
    ConstIterator Begin() const;
    ConstIterator End() const;
    Iterator begin() { return Begin(); }
    Iterator end() { return End(); }
    ConstIterator begin() const { return Begin(); }
    ConstIterator end() const { return End(); }

    // The form used in exception messages (strings unquoted at top level, quoted inside).
    StringW ToText() const;

    // Both swallow ValueException and report it as false.
    bool SetBool(bool b);
    bool TryGetBool(bool& out) const;

    // Both conversions walk the tree recursively, so they refuse trees nested deeper than
    // kMaxDepth arrays and objects (a document from outside could otherwise exhaust the calling
    // thread's stack): past it they throw ValueException and convert nothing.
    static constexpr unsigned kMaxDepth = 256;
    static Value FromJson(const Json::Value& json);
    Json::Value ToJson() const;

private:
    explicit Value(BaseValue* node) noexcept : node_(node) {}
    [[noreturn]] void ThrowKind(const wchar_t* format) const;
    [[noreturn]] void ThrowKeyed(const wchar_t* format, const wchar_t* key) const;
    DictValue& DictForAccess(const wchar_t* key) const;
    // `depth` counts the arrays and objects around the value being converted.
    static Value FromJsonAt(const Json::Value& json, unsigned depth);
    void ToJsonInto(Json::Value& out, std::string& buffer, unsigned depth) const;

    BaseValue* node_;
};

// Defined with the nodes, which the header does not show.
extern template class Value::IteratorT<false>;
extern template class Value::IteratorT<true>;

} // namespace qv
