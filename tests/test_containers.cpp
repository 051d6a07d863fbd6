// The list and map that cross the update plug-in's interface. Other plug-ins reach them only by
// slot number, so the checks go through the slot table: a reordered interface fails here.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "sdk/IUpdate.h"
#include "sdk/QvList.h"
#include "sdk/QvMap.h"

namespace {

using qv::StringW;
using Proxy = qv::kxsdk::Update::IUpdate::Proxy;
using Stats = qv::kxsdk::Update::IUpdate::SignatureStatistics;
using Request = qv::kxsdk::Update::IUpdate::UpdateRequest;
using PList = qv::List<Proxy>;
using SMap = qv::Map<StringW, Stats>;

// Calls virtual slot `slot` of obj the way a plug-in built elsewhere does: through the table.
// References travel as pointers, so callers pass addresses for reference parameters.
template <class R, class Obj, class... A> R Slot(Obj* obj, int slot, A... args) {
    using Fn = R (*)(Obj*, A...);
    void* const* table = *reinterpret_cast<void* const* const*>(obj);
    return reinterpret_cast<Fn>(table[slot])(obj, args...);
}

Proxy MakeProxy(const wchar_t* address, uint32_t port) {
    Proxy p;
    p.address = address;
    p.port = port;
    return p;
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
}

TEST(List, RemovalThroughTheEnumeratorMovesItToTheNextElement) {
    PList list;
    for (auto* name : {L"a", L"b", L"c"}) list.PushBack(MakeProxy(name, 0));
    auto* e = Slot<qv::ListEnum<Proxy>*>(&list, 9);
    EXPECT_EQ(Slot<Proxy*>(e, 2)->address, L"a");
    EXPECT_EQ(Slot<qv::ListNode<Proxy>*>(e, 1)->value.address, L"a");
    Slot<void>(&list, 8, e); // removes "b"
    EXPECT_EQ(Slot<Proxy*>(e, 2)->address, L"c");
    Slot<void>(&list, 8, e); // removes the last one: the enumerator reaches the end
    EXPECT_FALSE(Slot<bool>(e, 0));
    EXPECT_EQ(nullptr, (Slot<Proxy*>(e, 2)));
    Slot<void>(&list, 8, e); // at the end there is nothing to remove
    Slot<void>(e, 3);
    EXPECT_EQ(L"a ", Addresses(list));
}

TEST(List, CopiesAreDeepAndClearThenAddWorks) {
    Request request;
    request.proxies.PushBack(MakeProxy(L"proxy1", 8080));
    request.proxies.PushBack(MakeProxy(L"proxy2", 3128));
    Request copy = request;
    EXPECT_NE(request.proxies.First()->address.c_str(), copy.proxies.First()->address.c_str());
    copy.proxies.First()->address = L"changed";
    copy.proxies.PushBack(MakeProxy(L"proxy3", 1));
    EXPECT_EQ(L"proxy1 proxy2 ", Addresses(request.proxies));
    EXPECT_EQ(L"changed proxy2 proxy3 ", Addresses(copy.proxies));

    Slot<void>(&copy.proxies, 11);
    EXPECT_EQ(0u, (Slot<uint64_t>(&copy.proxies, 12)));
    copy.proxies.PushFront(MakeProxy(L"z", 3));
    EXPECT_EQ(L"z ", Addresses(copy.proxies));
    EXPECT_EQ(L"proxy1 proxy2 ", Addresses(request.proxies));
}

TEST(Map, FindsByExactCaseSensitiveKey) {
    SMap map;
    StringW upper(L"Antivirus"), lower(L"antivirus");
    EXPECT_EQ(nullptr, (Slot<Stats*>(&map, 1, &upper)));
    EXPECT_EQ(nullptr, (Slot<const Stats*>(&map, 3, &upper)));
    EXPECT_EQ(1168u, (Slot<uint32_t>(&map, 5, &upper)));
    Stats one = Stats{L"1.0", 10}, two = Stats{L"2.0", 20};
    EXPECT_EQ(0u, (Slot<uint32_t>(&map, 0, &upper, &one)));
    EXPECT_EQ(1168u, (Slot<uint32_t>(&map, 5, &lower)));
    EXPECT_EQ(0u, (Slot<uint32_t>(&map, 0, &lower, &two)));
    EXPECT_EQ(2u, (Slot<uint64_t>(&map, 9)));
    EXPECT_EQ(Slot<Stats*>(&map, 1, &upper)->version, L"1.0");
    EXPECT_EQ(Slot<Stats*>(&map, 2, &lower)->version, L"2.0");
    EXPECT_EQ(0u, (Slot<uint32_t>(&map, 0, &upper, &two))); // replaces
    EXPECT_EQ(20, Slot<const Stats*>(&map, 3, &upper)->count);
    EXPECT_EQ(2u, map.Count());
}

TEST(Map, RemovalThroughTheEnumeratorMovesItOnAndKeepsTheRestFindable) {
    SMap map;
    for (int i = 0; i < 40; ++i) map.Set(std::to_wstring(i).c_str(), Stats{L"v", i});
    auto* e = Slot<qv::Enum<StringW, Stats>*>(&map, 6);
    while (Slot<bool>(e, 0)) {
        if (Slot<Stats*>(e, 2)->count % 2 == 0) {
            Slot<void>(&map, 4, e);
        } else {
            Slot<qv::MapNode<StringW, Stats>*>(e, 1);
        }
    }
    Slot<void>(e, 4);
    EXPECT_EQ(20u, map.Count());
    for (int i = 0; i < 40; ++i) EXPECT_EQ(i % 2 == 1, map.Contains(std::to_wstring(i).c_str()) == 0) << i;
}

TEST(Map, EnumAndConstEnumSwapKeyAndValueSlots) {
    SMap map;
    map.Set(L"Antivirus", Stats{L"3.1", 42});
    auto* ce = Slot<qv::ConstEnum<StringW, Stats>*>(&map, 7);
    EXPECT_EQ(*Slot<const StringW*>(ce, 2), L"Antivirus");
    EXPECT_EQ(42, Slot<const Stats*>(ce, 3)->count);
    Slot<void>(ce, 4);
    auto* e = Slot<qv::Enum<StringW, Stats>*>(&map, 6);
    EXPECT_EQ(42, Slot<Stats*>(e, 2)->count);
    EXPECT_EQ(*Slot<const StringW*>(e, 3), L"Antivirus");
    Slot<void>(e, 4);

    // Walked to its end a const enumerator answers nulls; Clear (slot 8) leaves an empty map that
    // takes new keys.
    map.Set(L"Other", Stats{L"1", 1});
    ce = Slot<qv::ConstEnum<StringW, Stats>*>(&map, 7);
    int walked = 0;
    while (Slot<bool>(ce, 0)) walked += Slot<const qv::MapNode<StringW, Stats>*>(ce, 1) != nullptr;
    EXPECT_EQ(2, walked);
    EXPECT_EQ(nullptr, (Slot<const qv::MapNode<StringW, Stats>*>(ce, 1)));
    EXPECT_EQ(nullptr, (Slot<const StringW*>(ce, 2)));
    EXPECT_EQ(nullptr, (Slot<const Stats*>(ce, 3)));
    Slot<void>(ce, 4);
    Slot<void>(&map, 8);
    EXPECT_EQ(0u, map.Count());
    map.Set(L"Antivirus", Stats{L"4.0", 4});
    EXPECT_EQ(1u, map.Count());
}

} // namespace
