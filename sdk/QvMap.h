#pragma once
// Hash map container of the SDK interfaces, keyed by wide strings. Like List, it is reached by
// other plug-ins only through its virtual slots, whose order is the binary contract; every
// virtual function has its own name so that every compiler keeps the declaration order.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "sdk/LayoutCheck.h"
#include "sdk/StringT.h"

namespace qv {

// djb2 over the UTF-16 code units; keys compare exactly, so case matters. Four units are folded
// per step (h * 33^4 + c0 * 33^3 + c1 * 33^2 + c2 * 33 + c3 is the same 64-bit value as four
// single steps), so that the multiplications no longer wait for each other.
inline uint64_t MapKeyHash(const StringW& key) noexcept {
    constexpr uint64_t k33p2 = uint64_t{33} * 33, k33p3 = k33p2 * 33, k33p4 = k33p3 * 33;
    uint64_t h = 5381;
    const wchar_t* s = key.c_str();
    const size_t n = key.Length();
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const uint64_t c0 = static_cast<uint16_t>(s[i]), c1 = static_cast<uint16_t>(s[i + 1]);
        const uint64_t c2 = static_cast<uint16_t>(s[i + 2]), c3 = static_cast<uint16_t>(s[i + 3]);
        h = h * k33p4 + c0 * k33p3 + c1 * k33p2 + c2 * 33 + c3;
    }
    for (; i < n; ++i) h = h * 33 + static_cast<uint16_t>(s[i]);
    return h;
}
inline bool MapKeyEqual(const StringW& a, const StringW& b) noexcept {
    size_t n = a.Length();
    if (n != b.Length()) return false;
    const wchar_t* x = a.c_str();
    const wchar_t* y = b.c_str();
    for (size_t i = 0; i < n; ++i)
        if (x[i] != y[i]) return false;
    return true;
}
template <class K> uint64_t MapKeyHash(const K& key) { return std::hash<K>()(key); }
template <class K> bool MapKeyEqual(const K& a, const K& b) { return a == b; }

struct MapLink {
    MapLink* next = nullptr;
    MapLink* prev = nullptr;
};

#if QV_SDK_CHECK_LAYOUT
static_assert(sizeof(MapLink) == 16 && offsetof(MapLink, next) == 0 && offsetof(MapLink, prev) == 8, "MapLink");
#endif

template <class K, class V> struct MapNode : MapLink {
    MapNode(const K& k, const V& v) : MapLink{nullptr, nullptr}, key(k), value(v) {}
    K key;
    V value;
};

template <class K, class V> class Map;

template <class K, class V> class Enum {
public:
    using Node = MapNode<K, V>;

    Enum(MapLink* sentinel, MapLink* position) : sentinel_(sentinel), pos_(position) {}
    Enum(const Enum&) = delete;
    Enum& operator=(const Enum&) = delete;

    /* 0 */ virtual bool HasMore() const { return pos_ != sentinel_; }
    // Returns the current node and steps to the following one; null at the end.
    /* 1 */ virtual Node* Next() {
        if (pos_ == sentinel_) return nullptr;
        MapLink* cur = pos_;
        pos_ = pos_->next;
        return static_cast<Node*>(cur);
    }
    /* 2 */ virtual V* Value() { return pos_ == sentinel_ ? nullptr : &static_cast<Node*>(pos_)->value; }
    /* 3 */ virtual const K* Key() const { return pos_ == sentinel_ ? nullptr : &static_cast<const Node*>(pos_)->key; }
    /* 4 */ virtual void Release() { delete this; }
    /* 5 */ virtual void SetPosition(MapLink* position) { pos_ = position; }
    /* 6 */ virtual ~Enum() = default;

private:
    friend class Map<K, V>;
    MapLink* sentinel_;
    MapLink* pos_;
};

// Key and value sit in the opposite slots from Enum: that order is part of the interface.
template <class K, class V> class ConstEnum {
public:
    using Node = MapNode<K, V>;

    ConstEnum(const MapLink* sentinel, const MapLink* position) : sentinel_(sentinel), pos_(position) {}
    ConstEnum(const ConstEnum&) = delete;
    ConstEnum& operator=(const ConstEnum&) = delete;

    /* 0 */ virtual bool HasMore() const { return pos_ != sentinel_; }
    /* 1 */ virtual const Node* Next() {
        if (pos_ == sentinel_) return nullptr;
        const MapLink* cur = pos_;
        pos_ = pos_->next;
        return static_cast<const Node*>(cur);
    }
    /* 2 */ virtual const K* Key() const { return pos_ == sentinel_ ? nullptr : &static_cast<const Node*>(pos_)->key; }
    /* 3 */ virtual const V* Value() const {
        return pos_ == sentinel_ ? nullptr : &static_cast<const Node*>(pos_)->value;
    }
    /* 4 */ virtual void Release() { delete this; }
    /* 5 */ virtual void SetPosition(const MapLink* position) { pos_ = position; }
    /* 6 */ virtual ~ConstEnum() = default;

private:
    const MapLink* sentinel_;
    const MapLink* pos_;
};

// Nodes live in one list; the nodes of a bucket are kept next to each other, and each bucket
// records its first and last node.
template <class K, class V> class Map {
public:
    using Node = MapNode<K, V>;
    static constexpr uint32_t kNotFound = 1168;
    static constexpr size_t kInitialBuckets = 8;

    Map() : buckets_(kInitialBuckets) { Reset(); }
    Map(const Map& other) : Map() { CopyFrom(other); }
    // Not noexcept: the moved-from map keeps an empty bucket table, which is allocated.
    // NOLINTNEXTLINE(performance-noexcept-move-constructor)
    Map(Map&& other) : Map() { Swap(other); }
    Map& operator=(const Map& other) {
        if (this != &other) {
            Map copy(other);
            Swap(copy);
        }
        return *this;
    }
    // NOLINTNEXTLINE(performance-noexcept-move-constructor): as the move constructor.
    Map& operator=(Map&& other) {
        if (this != &other) {
            Map empty;
            Swap(other);
            other.Swap(empty);
        }
        return *this;
    }
    // Not virtual: the slot table holds exactly the operations below.
    ~Map() { FreeNodes(); }

    /* 0 */ virtual uint32_t Set(const K& key, const V& value) {
        if (Node* node = FindNode(key)) {
            node->value = value;
            return 0;
        }
        Insert(new Node(key, value));
        return 0;
    }
    /* 1 */ virtual V* Find(const K& key) {
        Node* node = FindNode(key);
        return node ? &node->value : nullptr;
    }
    /* 2 */ virtual V* Lookup(const K& key) { return Find(key); }
    /* 3 */ virtual const V* FindConst(const K& key) const {
        const Node* node = FindNode(key);
        return node ? &node->value : nullptr;
    }
    // Removes the entry at the enumerator's position and leaves the enumerator on the next one.
    /* 4 */ virtual void Remove(Enum<K, V>* position) {
        if (!position || position->sentinel_ != &sentinel_) return;
        MapLink* link = position->pos_;
        if (link == &sentinel_) return;
        position->pos_ = link->next;
        Node* node = static_cast<Node*>(link);
        Bucket& b = buckets_[BucketOf(node->key)];
        if (b.first == node && b.last == node) {
            b.first = b.last = nullptr;
        } else if (b.first == node) {
            b.first = static_cast<Node*>(node->next);
        } else if (b.last == node) {
            b.last = static_cast<Node*>(node->prev);
        }
        node->prev->next = node->next;
        node->next->prev = node->prev;
        --count_;
        delete node;
    }
    /* 5 */ virtual uint32_t Contains(const K& key) const { return FindNode(key) ? 0 : kNotFound; }
    /* 6 */ virtual Enum<K, V>* Enumerate() { return new Enum<K, V>(&sentinel_, sentinel_.next); }
    /* 7 */ virtual ConstEnum<K, V>* EnumerateConst() const { return new ConstEnum<K, V>(&sentinel_, sentinel_.next); }
    /* 8 */ virtual void Clear() {
        FreeNodes();
        Reset();
        buckets_.assign(kInitialBuckets, Bucket());
    }
    /* 9 */ virtual uint64_t Count() const { return count_; }

    size_t BucketCount() const { return buckets_.size(); }

    // Plain in-process iteration for the plug-in's own code.
    template <class F> void ForEach(F&& f) const {
        for (const MapLink* p = sentinel_.next; p != &sentinel_; p = p->next)
            f(static_cast<const Node*>(p)->key, static_cast<const Node*>(p)->value);
    }

private:
    struct Bucket {
        Node* first = nullptr;
        Node* last = nullptr;
    };

    void Reset() noexcept {
        sentinel_.next = &sentinel_;
        sentinel_.prev = &sentinel_;
        count_ = 0;
    }
    size_t BucketOf(const K& key) const { return static_cast<size_t>(MapKeyHash(key) & (buckets_.size() - 1)); }
    Node* FindNode(const K& key) const {
        const Bucket& b = buckets_[BucketOf(key)];
        if (!b.first) return nullptr;
        for (Node* n = b.first;; n = static_cast<Node*>(n->next)) {
            if (MapKeyEqual(n->key, key)) return n;
            if (n == b.last) return nullptr;
        }
    }
    void Insert(Node* node) {
        if (count_ + 1 > buckets_.size()) {
            try {
                Rehash(buckets_.size() < 512 ? buckets_.size() * 8 : buckets_.size() * 2);
            } catch (...) {
                delete node;
                throw;
            }
        }
        Link(node);
        ++count_;
    }
    // Appends a node to its bucket's run, or to the end of the list for an empty bucket; so
    // entries of one bucket keep their insertion order.
    void Link(Node* node) noexcept {
        Bucket& b = buckets_[BucketOf(node->key)];
        MapLink* where = b.last ? b.last->next : &sentinel_;
        node->next = where;
        node->prev = where->prev;
        where->prev->next = node;
        where->prev = node;
        if (!b.first) b.first = node;
        b.last = node;
    }
    void Rehash(size_t bucketCount) {
        std::vector<Bucket> fresh(bucketCount);
        MapLink* p = sentinel_.next;
        buckets_.swap(fresh);
        sentinel_.next = sentinel_.prev = &sentinel_;
        while (p != &sentinel_) {
            MapLink* next = p->next;
            Link(static_cast<Node*>(p));
            p = next;
        }
    }
    void FreeNodes() noexcept {
        MapLink* p = sentinel_.next;
        while (p != &sentinel_) {
            MapLink* next = p->next;
            delete static_cast<Node*>(p);
            p = next;
        }
    }
    // Same bucket count first, so the copy enumerates in the same order.
    void CopyFrom(const Map& other) {
        if (other.buckets_.size() != buckets_.size()) Rehash(other.buckets_.size());
        for (const MapLink* p = other.sentinel_.next; p != &other.sentinel_; p = p->next) {
            const Node* n = static_cast<const Node*>(p);
            Insert(new Node(n->key, n->value));
        }
    }
    void Swap(Map& other) noexcept {
        buckets_.swap(other.buckets_);
        std::swap(count_, other.count_);
        MapLink mine = sentinel_;
        MapLink theirs = other.sentinel_;
        Adopt(theirs, &other.sentinel_);
        other.Adopt(mine, &sentinel_);
    }
    // Takes over the node chain that hung from another sentinel (oldSentinel).
    void Adopt(const MapLink& chain, const MapLink* oldSentinel) noexcept {
        if (chain.next == oldSentinel) {
            sentinel_.next = sentinel_.prev = &sentinel_;
            return;
        }
        sentinel_.next = chain.next;
        sentinel_.prev = chain.prev;
        sentinel_.next->prev = &sentinel_;
        sentinel_.prev->next = &sentinel_;
    }

    MapLink sentinel_;
    uint64_t count_;
    std::vector<Bucket> buckets_;
};

} // namespace qv
