#pragma once
// Node classes behind qv::Value. Private to the value sources: callers only see handles.
#include "support/QvValue.h"

#include <cstdint>
#include <new>
#include <utility>

namespace qv {

ValueAllocator DefaultValueAllocator();

// Formats the wide message and throws it as ValueException.
[[noreturn]] void ThrowValueException(const wchar_t* format, ...);

// count / capacity / storage, growing by doubling through the owner's allocator. The storage is
// moved with reallocate, which is sound for the two element types used here: a handle and a
// StringW are each one pointer that nothing else points back at.
template <class T> struct GrowArray {
    uint64_t count;
    uint64_t capacity;
    T* items;
    ValueAllocator alloc;

    void Init(const ValueAllocator& allocator, uint64_t initialCapacity) {
        count = 0;
        capacity = 0;
        items = nullptr;
        alloc = allocator;
        if (initialCapacity) {
            items = static_cast<T*>(alloc.allocate(static_cast<size_t>(initialCapacity) * sizeof(T)));
            if (!items) throw std::bad_alloc();
            capacity = initialCapacity;
        }
    }

    void GrowIfFull() {
        if (count != capacity) return;
        uint64_t next = capacity ? capacity * 2 : 8;
        if (capacity > SIZE_MAX / 2 / sizeof(T)) next = capacity; // doubling would overflow
        if (next == capacity) throw std::bad_alloc();
        void* block = alloc.reallocate(static_cast<void*>(items), static_cast<size_t>(next) * sizeof(T));
        if (!block) throw std::bad_alloc();
        items = static_cast<T*>(block);
        capacity = next;
    }

    // Room must have been made with GrowIfFull.
    T& PushUnchecked(T&& item) noexcept {
        // cppcheck-suppress legacyUninitvar ; the placement new constructs the slot it names
        T* slot = ::new (static_cast<void*>(items + count)) T(std::move(item));
        ++count;
        return *slot;
    }

    T& Push(T&& item) {
        GrowIfFull();
        return PushUnchecked(std::move(item));
    }

    void Destroy() noexcept {
        for (uint64_t i = 0; i < count; ++i) items[i].~T();
        if (items) alloc.release(static_cast<void*>(items));
        items = nullptr;
        count = capacity = 0;
    }
};

class Value::BaseValue {
public:
    virtual ~BaseValue() = default;
    virtual int Kind() const = 0;

    ValueAllocator allocator;

protected:
    BaseValue() : allocator(DefaultValueAllocator()) {}
};

class Value::NumberValue final : public BaseValue {
public:
    explicit NumberValue(double v) : value(v) {}
    int Kind() const override { return kNumber; }
    double value;
};

class Value::BoolValue final : public BaseValue {
public:
    explicit BoolValue(bool v) : value(v ? 1 : 0) {}
    int Kind() const override { return kBool; }
    uint8_t value;
};

class Value::StringValue final : public BaseValue {
public:
    static constexpr size_t kInitialRoom = 64;
    StringValue() { value.Reserve(kInitialRoom); }
    int Kind() const override { return kString; }
    StringW value;
};

class Value::ArrayValue final : public BaseValue {
public:
    static constexpr uint64_t kInitialCapacity = 8;
    ArrayValue();
    ~ArrayValue() override;
    int Kind() const override { return kArray; }
    GrowArray<Value>* items;
};

class Value::DictValue final : public BaseValue {
public:
    static constexpr uint64_t kInitialCapacity = 8;
    static constexpr uint64_t npos = UINT64_MAX;
    DictValue();
    ~DictValue() override;
    int Kind() const override { return kDict; }

    uint64_t Count() const { return keys.count; }
    // Exact, case-sensitive comparison; linear in the entry count.
    uint64_t IndexOf(const wchar_t* key) const;
    // Appends without looking for the key: the caller knows it is not there yet.
    Value& Add(StringW&& key, Value&& item);

    GrowArray<StringW> keys;
    uint8_t keysOwned; // always 1: the entries' keys belong to the dict
    GrowArray<Value> values;
};

} // namespace qv
