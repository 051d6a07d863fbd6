// The list and map that cross the update plug-in's interface. Other plug-ins reach them only by
// slot number, so the checks go through the slot table: a reordered interface fails here.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "sdk/IUpdate.h"
#include "support/QvList.h"
#include "support/QvMap.h"

namespace {

using qv::StringW;
using Proxy = qv::kxsdk::Update::IUpdate::Proxy;
using Stats = qv::kxsdk::Update::IUpdate::SignatureStatistics;
using Request = qv::kxsdk::Update::IUpdate::UpdateRequest;
using PList = qv::List<Proxy>;
using SMap = qv::Map<StringW, Stats>;

// Calls virtual slot `slot` of obj the way a plug-in built elsewhere does: through the table.
// References travel as pointers, so callers pass addresses for reference parameters.
template <class R, class Obj, class... A>
R Slot(Obj* obj, int slot, A... args) {
    using Fn = R (*)(Obj*, A...);
    void* const* table = *reinterpret_cast<void* const* const*>(obj);
    return reinterpret_cast<Fn>(table[slot])(obj, args...);
}

Proxy MakeProxy(const wchar_t* address, uint32_t port) {
    Proxy p;
    p.address = address;
    p.port = port;
    p.user = L"user";
    return p;
}

Stats MakeStats(const wchar_t* version, int32_t count) {
    Stats s;
    s.version = version;
    s.count = count;
    return s;
}

// Addresses of the list in order, read through a fresh const enumerator (slot 10).
std::wstring Addresses(const PList& list) {
    std::wstring out;
    auto* e = Slot<qv::ConstListEnum<Proxy>*>(&list, 10);
    while (Slot<bool>(e, 0)) {
        auto* node = Slot<const qv::ListNode<Proxy>*>(e, 1);
        out += node->value.address.c_str();
        out += L' ';
    }
    Slot<void>(e, 3);
    return out;
}

TEST(List, EmptyListAnswersNullAndNotFoundWithoutTouchingTheOutParameter) {
    PList list;
    EXPECT_EQ(nullptr, (Slot<const Proxy*>(&list, 2)));
    EXPECT_EQ(nullptr, (Slot<Proxy*>(&list, 3)));
    EXPECT_EQ(nullptr, (Slot<const Proxy*>(&list, 5)));
    EXPECT_EQ(nullptr, (Slot<Proxy*>(&list, 6)));
    Proxy out = MakeProxy(L"untouched", 7);
    EXPECT_EQ(1168u, (Slot<uint32_t>(&list, 4, &out)));
    EXPECT_EQ(1168u, (Slot<uint32_t>(&list, 7, &out)));
    EXPECT_EQ(out.address, L"untouched");
    EXPECT_EQ(7u, out.port);
    EXPECT_EQ(0u, (Slot<uint64_t>(&list, 12)));
}

TEST(List, AddsAtBothEndsAndReadsBothEnds) {
    PList list;
    Proxy b = MakeProxy(L"b", 2), a = MakeProxy(L"a", 1), c = MakeProxy(L"c", 3);
    EXPECT_EQ(0u, (Slot<uint32_t>(&list, 0, &b)));
    EXPECT_EQ(0u, (Slot<uint32_t>(&list, 1, &a)));
    EXPECT_EQ(0u, (Slot<uint32_t>(&list, 0, &c)));
    EXPECT_EQ(3u, (Slot<uint64_t>(&list, 12)));
    EXPECT_EQ(L"a b c ", Addresses(list));
    EXPECT_EQ(Slot<const Proxy*>(&list, 2)->address, L"c");
    EXPECT_EQ(Slot<Proxy*>(&list, 3)->address, L"c");
    EXPECT_EQ(Slot<const Proxy*>(&list, 5)->address, L"a");
    EXPECT_EQ(Slot<Proxy*>(&list, 6)->address, L"a");
    Proxy out;
    EXPECT_EQ(0u, (Slot<uint32_t>(&list, 4, &out)));
    EXPECT_EQ(out.address, L"c");
    EXPECT_EQ(0u, (Slot<uint32_t>(&list, 7, &out)));
    EXPECT_EQ(out.address, L"a");
    EXPECT_EQ(1u, out.port);
}

TEST(List, EnumeratorWalksPositionsAndRemovalMovesItToTheNextElement) {
    PList list;
    for (auto* name : {L"a", L"b", L"c", L"d"}) list.PushBack(MakeProxy(name, 0));

    auto* e = Slot<qv::ListEnum<Proxy>*>(&list, 9);
    EXPECT_EQ(Slot<Proxy*>(e, 2)->address, L"a");
    auto* first = Slot<qv::ListNode<Proxy>*>(e, 1);
    EXPECT_EQ(first->value.address, L"a");
    EXPECT_EQ(Slot<Proxy*>(e, 2)->address, L"b");

    Slot<void>(&list, 8, e);  // removes "b"
    EXPECT_EQ(Slot<Proxy*>(e, 2)->address, L"c");
    EXPECT_EQ(L"a c d ", Addresses(list));

    Slot<void>(e, 4, static_cast<qv::ListLink*>(first));  // back to "a" and remove it
    Slot<void>(&list, 8, e);
    EXPECT_EQ(Slot<Proxy*>(e, 2)->address, L"c");
    Slot<qv::ListNode<Proxy>*>(e, 1);
    Slot<void>(&list, 8, e);  // removes the last one: the enumerator reaches the end
    EXPECT_FALSE(Slot<bool>(e, 0));
    EXPECT_EQ(nullptr, (Slot<Proxy*>(e, 2)));
    EXPECT_EQ(nullptr, (Slot<qv::ListNode<Proxy>*>(e, 1)));
    Slot<void>(&list, 8, e);  // at the end there is nothing to remove
    Slot<void>(e, 3);
    EXPECT_EQ(L"c ", Addresses(list));
    EXPECT_EQ(1u, list.Count());
}

TEST(List, ClearThenAddAgain) {
    PList list;
    list.PushBack(MakeProxy(L"x", 1));
    list.PushBack(MakeProxy(L"y", 2));
    Slot<void>(&list, 11);
    EXPECT_EQ(0u, (Slot<uint64_t>(&list, 12)));
    EXPECT_EQ(nullptr, list.First());
    list.PushFront(MakeProxy(L"z", 3));
    EXPECT_EQ(L"z ", Addresses(list));
}

TEST(List, CopiesAreDeepAndIndependent) {
    Request request;
    request.proxies.PushBack(MakeProxy(L"proxy1", 8080));
    request.proxies.PushBack(MakeProxy(L"proxy2", 3128));
    Request copy = request;
    ASSERT_EQ(2u, copy.proxies.Count());
    EXPECT_NE(request.proxies.First(), copy.proxies.First());
    EXPECT_NE(request.proxies.First()->address.c_str(), copy.proxies.First()->address.c_str());
    copy.proxies.First()->address = L"changed";
    copy.proxies.PushBack(MakeProxy(L"proxy3", 1));
    EXPECT_EQ(L"proxy1 proxy2 ", Addresses(request.proxies));

    PList target;
    target.PushBack(MakeProxy(L"old", 1));
    target = request.proxies;
    target = target;
    EXPECT_EQ(L"proxy1 proxy2 ", Addresses(target));
    PList moved(std::move(target));
    EXPECT_EQ(L"proxy1 proxy2 ", Addresses(moved));
    EXPECT_EQ(0u, target.Count());
    target.PushBack(MakeProxy(L"again", 1));
    EXPECT_EQ(L"again ", Addresses(target));
}

TEST(Map, EmptyMapFindsNothing) {
    SMap map;
    StringW key(L"Antivirus");
    EXPECT_EQ(nullptr, (Slot<Stats*>(&map, 1, &key)));
    EXPECT_EQ(nullptr, (Slot<Stats*>(&map, 2, &key)));
    EXPECT_EQ(nullptr, (Slot<const Stats*>(&map, 3, &key)));
    EXPECT_EQ(1168u, (Slot<uint32_t>(&map, 5, &key)));
    EXPECT_EQ(0u, (Slot<uint64_t>(&map, 9)));
}

TEST(Map, SetInsertsOrReplacesAndKeysAreCaseSensitive) {
    SMap map;
    StringW upper(L"Antivirus"), lower(L"antivirus");
    Stats one = MakeStats(L"1.0", 10), two = MakeStats(L"2.0", 20);
    EXPECT_EQ(0u, (Slot<uint32_t>(&map, 0, &upper, &one)));
    EXPECT_EQ(1168u, (Slot<uint32_t>(&map, 5, &lower)));
    EXPECT_EQ(0u, (Slot<uint32_t>(&map, 0, &lower, &two)));
    EXPECT_EQ(2u, (Slot<uint64_t>(&map, 9)));
    EXPECT_EQ(Slot<Stats*>(&map, 1, &upper)->version, L"1.0");
    EXPECT_EQ(Slot<Stats*>(&map, 2, &lower)->version, L"2.0");

    EXPECT_EQ(0u, (Slot<uint32_t>(&map, 0, &upper, &two)));
    EXPECT_EQ(2u, map.Count());
    EXPECT_EQ(20, Slot<const Stats*>(&map, 3, &upper)->count);
    EXPECT_EQ(0u, (Slot<uint32_t>(&map, 5, &upper)));
}

TEST(Map, ManyKeysStayReachableAsTheTableGrows) {
    SMap map;
    for (int i = 0; i < 2000; ++i) {
        StringW key;
        key.Format(L"component%d", i);
        map.Set(key, MakeStats(key, i));
    }
    EXPECT_EQ(2000u, map.Count());
    EXPECT_GE(map.BucketCount(), 2000u);
    EXPECT_EQ(0u, map.BucketCount() & (map.BucketCount() - 1));
    for (int i = 0; i < 2000; ++i) {
        StringW key;
        key.Format(L"component%d", i);
        const Stats* s = map.FindConst(key);
        ASSERT_NE(nullptr, s) << i;
        EXPECT_EQ(i, s->count);
    }
}

TEST(Map, RemovalThroughTheEnumeratorMovesItOnAndKeepsTheRestFindable) {
    SMap map;
    for (int i = 0; i < 40; ++i) {
        StringW key;
        key.Format(L"k%d", i);
        map.Set(key, MakeStats(L"v", i));
    }
    // Remove every entry with an even count, enumerator-driven.
    auto* e = Slot<qv::Enum<StringW, Stats>*>(&map, 6);
    while (Slot<bool>(e, 0)) {
        Stats* value = Slot<Stats*>(e, 2);
        if (value->count % 2 == 0) {
            StringW removedKey(*Slot<const StringW*>(e, 3));
            Slot<void>(&map, 4, e);
            EXPECT_EQ(nullptr, map.Find(removedKey));
        } else {
            Slot<qv::MapNode<StringW, Stats>*>(e, 1);
        }
    }
    Slot<void>(e, 4);
    EXPECT_EQ(20u, map.Count());
    for (int i = 0; i < 40; ++i) {
        StringW key;
        key.Format(L"k%d", i);
        EXPECT_EQ(i % 2 == 1, map.Contains(key) == 0) << i;
    }
}

TEST(Map, ClearResetsToEightBucketsAndAddingAgainWorks) {
    SMap map;
    for (int i = 0; i < 100; ++i) {
        StringW key;
        key.Format(L"k%d", i);
        map.Set(key, MakeStats(L"v", i));
    }
    Slot<void>(&map, 8);
    EXPECT_EQ(0u, map.Count());
    EXPECT_EQ(8u, map.BucketCount());
    EXPECT_EQ(nullptr, map.Find(L"k5"));
    map.Set(L"k5", MakeStats(L"again", 5));
    map.Set(L"K5", MakeStats(L"upper", 6));
    EXPECT_EQ(map.Find(L"k5")->version, L"again");
    EXPECT_EQ(2u, map.Count());
}

TEST(Map, EnumAndConstEnumSwapKeyAndValueSlots) {
    SMap map;
    map.Set(L"Antivirus", MakeStats(L"3.1", 42));
    const qv::MapNode<StringW, Stats>* node = nullptr;
    {
        auto* ce = Slot<qv::ConstEnum<StringW, Stats>*>(&map, 7);
        EXPECT_EQ(*Slot<const StringW*>(ce, 2), L"Antivirus");
        EXPECT_EQ(42, Slot<const Stats*>(ce, 3)->count);
        node = Slot<const qv::MapNode<StringW, Stats>*>(ce, 1);
        EXPECT_FALSE(Slot<bool>(ce, 0));
        Slot<void>(ce, 5, static_cast<const qv::MapLink*>(node));
        EXPECT_TRUE(Slot<bool>(ce, 0));
        Slot<void>(ce, 4);
    }
    auto* e = Slot<qv::Enum<StringW, Stats>*>(&map, 6);
    EXPECT_EQ(42, Slot<Stats*>(e, 2)->count);
    EXPECT_EQ(*Slot<const StringW*>(e, 3), L"Antivirus");
    EXPECT_EQ(&node->value, Slot<Stats*>(e, 2));
    Slot<void>(e, 4);
}

TEST(Map, CopiesAreDeepAndKeepTheOrder) {
    SMap map;
    map.Set(L"Antivirus", MakeStats(L"1", 1));
    map.Set(L"Antispam", MakeStats(L"2", 2));
    map.Set(L"Core", MakeStats(L"3", 3));
    for (int i = 0; i < 100; ++i) {
        StringW key;
        key.Format(L"k%d", i);
        map.Set(key, MakeStats(L"v", i));
    }
    SMap copy(map);
    copy.Find(L"Core")->version = L"changed";
    EXPECT_EQ(map.Find(L"Core")->version, L"3");
    std::wstring a, b;
    map.ForEach([&](const StringW& k, const Stats&) { a += k.c_str(); });
    copy.ForEach([&](const StringW& k, const Stats&) { b += k.c_str(); });
    EXPECT_EQ(a, b);

    SMap assigned;
    assigned.Set(L"stale", MakeStats(L"0", 0));
    assigned = map;
    EXPECT_EQ(nullptr, assigned.Find(L"stale"));
    EXPECT_EQ(103u, assigned.Count());
    SMap moved(std::move(assigned));
    EXPECT_EQ(103u, moved.Count());
    EXPECT_EQ(0u, assigned.Count());
    assigned.Set(L"fresh", MakeStats(L"1", 1));
    EXPECT_NE(nullptr, assigned.Find(L"fresh"));
}

TEST(Map, HashIsDjb2OverUtf16Units) {
    const uint64_t expected = (5381ull * 33 + L'a') * 33 + 0xE9;
    EXPECT_EQ(expected, qv::MapKeyHash(StringW(L"a\u00e9")));
}

} // namespace
