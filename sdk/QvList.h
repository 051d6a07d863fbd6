#pragma once
// List container of the SDK interfaces. Other plug-ins reach it only through its virtual slots,
// so the order of the virtual functions below is the binary contract and must not change.
// Distinct names are used for every virtual function on purpose: compilers disagree about the
// slot order of overloaded virtual functions, distinct names keep it the declaration order.
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <utility>

#include "sdk/LayoutCheck.h"

namespace qv {

struct ListLink {
    ListLink* next = nullptr;
    ListLink* prev = nullptr;
};

#if QV_SDK_CHECK_LAYOUT
static_assert(sizeof(ListLink) == 16 && offsetof(ListLink, next) == 0 && offsetof(ListLink, prev) == 8, "ListLink");
#endif

template <class T> struct ListNode : ListLink {
    // Nodes are made by the list from a value and never copied or moved themselves.
    // NOLINTNEXTLINE(bugprone-forwarding-reference-overload)
    template <class U> explicit ListNode(U&& v) : ListLink{nullptr, nullptr}, value(std::forward<U>(v)) {}
    T value;
};

template <class T> class List;

// Enumerator over a list: the list's sentinel and the current position. Created by the list on
// the heap; callers give it back with Release.
template <class T> class ListEnum {
public:
    using Node = ListNode<T>;

    ListEnum(ListLink* sentinel, ListLink* position) : sentinel_(sentinel), pos_(position) {}
    ListEnum(const ListEnum&) = delete;
    ListEnum& operator=(const ListEnum&) = delete;

    /* 0 */ virtual bool HasMore() const { return pos_ != sentinel_; }
    // Returns the current node and steps to the following one; null at the end.
    /* 1 */ virtual Node* Next() {
        if (pos_ == sentinel_) return nullptr;
        ListLink* cur = pos_;
        pos_ = pos_->next;
        return static_cast<Node*>(cur);
    }
    /* 2 */ virtual T* Current() { return pos_ == sentinel_ ? nullptr : &static_cast<Node*>(pos_)->value; }
    /* 3 */ virtual void Release() { delete this; }
    /* 4 */ virtual void SetPosition(ListLink* position) { pos_ = position; }
    /* 5 */ virtual ~ListEnum() = default;

private:
    friend class List<T>;
    ListLink* sentinel_;
    ListLink* pos_;
};

template <class T> class ConstListEnum {
public:
    using Node = ListNode<T>;

    ConstListEnum(const ListLink* sentinel, const ListLink* position) : sentinel_(sentinel), pos_(position) {}
    ConstListEnum(const ConstListEnum&) = delete;
    ConstListEnum& operator=(const ConstListEnum&) = delete;

    /* 0 */ virtual bool HasMore() const { return pos_ != sentinel_; }
    /* 1 */ virtual const Node* Next() {
        if (pos_ == sentinel_) return nullptr;
        const ListLink* cur = pos_;
        pos_ = pos_->next;
        return static_cast<const Node*>(cur);
    }
    /* 2 */ virtual const T* Current() const {
        return pos_ == sentinel_ ? nullptr : &static_cast<const Node*>(pos_)->value;
    }
    /* 3 */ virtual void Release() { delete this; }
    /* 4 */ virtual void SetPosition(const ListLink* position) { pos_ = position; }
    /* 5 */ virtual ~ConstListEnum() = default;

private:
    const ListLink* sentinel_;
    const ListLink* pos_;
};

// Doubly linked list with a sentinel and a 64-bit count.
template <class T> class List {
public:
    using Node = ListNode<T>;
    static constexpr uint32_t kNotFound = 1168;

    List() noexcept { Reset(); }
    List(const List& other) : List() { AppendAll(other); }
    List(List&& other) noexcept : List() { TakeAll(other); }
    List& operator=(const List& other) {
        if (this != &other) {
            List copy(other);
            ClearNodes();
            TakeAll(copy);
        }
        return *this;
    }
    List& operator=(List&& other) noexcept {
        if (this != &other) {
            ClearNodes();
            TakeAll(other);
        }
        return *this;
    }
    // Not virtual: the slot table holds exactly the operations below.
    ~List() { ClearNodes(); }

    /* 0 */ virtual uint32_t PushBack(const T& value) {
        LinkBefore(&sentinel_, value);
        return 0;
    }
    /* 1 */ virtual uint32_t PushFront(const T& value) {
        LinkBefore(sentinel_.next, value);
        return 0;
    }
    /* 2 */ virtual const T* LastConst() const {
        return count_ ? &static_cast<const Node*>(sentinel_.prev)->value : nullptr;
    }
    /* 3 */ virtual T* Last() { return count_ ? &static_cast<Node*>(sentinel_.prev)->value : nullptr; }
    /* 4 */ virtual uint32_t GetLast(T& out) const {
        if (!count_) return kNotFound;
        out = static_cast<const Node*>(sentinel_.prev)->value;
        return 0;
    }
    /* 5 */ virtual const T* FirstConst() const {
        return count_ ? &static_cast<const Node*>(sentinel_.next)->value : nullptr;
    }
    /* 6 */ virtual T* First() { return count_ ? &static_cast<Node*>(sentinel_.next)->value : nullptr; }
    /* 7 */ virtual uint32_t GetFirst(T& out) const {
        if (!count_) return kNotFound;
        out = static_cast<const Node*>(sentinel_.next)->value;
        return 0;
    }
    // Removes the element at the enumerator's position and leaves the enumerator on the next one.
    /* 8 */ virtual void Remove(ListEnum<T>* position) {
        if (!position || position->sentinel_ != &sentinel_) return;
        ListLink* node = position->pos_;
        if (node == &sentinel_) return;
        position->pos_ = node->next;
        Unlink(node);
    }
    /* 9 */ virtual ListEnum<T>* Enumerate() { return new ListEnum<T>(&sentinel_, sentinel_.next); }
    /* 10 */ virtual ConstListEnum<T>* EnumerateConst() const {
        return new ConstListEnum<T>(&sentinel_, sentinel_.next);
    }
    /* 11 */ virtual void Clear() { ClearNodes(); }
    /* 12 */ virtual uint64_t Count() const { return count_; }

    // The largest node count the address space can hold.
    static constexpr uint64_t MaxCount() {
        return static_cast<uint64_t>(std::numeric_limits<std::ptrdiff_t>::max()) / sizeof(Node);
    }

    // Plain in-process iteration for the plug-in's own code.
    template <class F> void ForEach(F&& f) const {
        for (const ListLink* p = sentinel_.next; p != &sentinel_; p = p->next) f(static_cast<const Node*>(p)->value);
    }

private:
    void Reset() noexcept {
        sentinel_.next = &sentinel_;
        sentinel_.prev = &sentinel_;
        count_ = 0;
    }
    void LinkBefore(ListLink* where, const T& value) {
        if (count_ >= MaxCount()) throw std::length_error("list<T> too long");
        Node* node = new Node(value);
        node->next = where;
        node->prev = where->prev;
        where->prev->next = node;
        where->prev = node;
        ++count_;
    }
    void Unlink(ListLink* node) noexcept {
        node->prev->next = node->next;
        node->next->prev = node->prev;
        --count_;
        delete static_cast<Node*>(node);
    }
    void ClearNodes() noexcept {
        ListLink* p = sentinel_.next;
        while (p != &sentinel_) {
            ListLink* next = p->next;
            delete static_cast<Node*>(p);
            p = next;
        }
        Reset();
    }
    void AppendAll(const List& other) {
        for (const ListLink* p = other.sentinel_.next; p != &other.sentinel_; p = p->next)
            LinkBefore(&sentinel_, static_cast<const Node*>(p)->value);
    }
    // Moves every node of an empty-or-cleared source over to this (empty) list.
    void TakeAll(List& other) noexcept {
        if (!other.count_) return;
        sentinel_.next = other.sentinel_.next;
        sentinel_.prev = other.sentinel_.prev;
        sentinel_.next->prev = &sentinel_;
        sentinel_.prev->next = &sentinel_;
        count_ = other.count_;
        other.Reset();
    }

    ListLink sentinel_;
    uint64_t count_;
};

} // namespace qv
