// Sink containers and events, with sink interfaces of the tests' own: registration results,
// notification order, isolation between containers, and the locking while notifications run.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/SinkContainer.h"
#include "support/StringT.h"
#include "tests/common/ThreadProbe.h"

using qvtest::kBlockedMs;
using qvtest::kProceedMs;
using qvtest::Signal;
using qvtest::TestThread;
using Lines = std::vector<std::wstring>;

namespace {

struct IValueEvents {
    virtual int OnValue(int value) = 0;
    virtual int OnNamed(const qv::StringW& name, bool flag) = 0;
};

struct IOtherEvents {
    virtual int OnOther(int value) = 0;
};

class Journal {
public:
    void Add(const std::wstring& line) {
        std::lock_guard<std::mutex> hold(mutex_);
        lines_.push_back(line);
    }
    Lines Take() {
        std::lock_guard<std::mutex> hold(mutex_);
        Lines taken;
        taken.swap(lines_);
        return taken;
    }

private:
    std::mutex mutex_;
    Lines lines_;
};

class Sink : public IValueEvents, public IOtherEvents {
public:
    Sink(Journal& journal, const wchar_t* name) : journal_(journal), name_(name) {}

    int OnValue(int value) override {
        journal_.Add(name_ + L":value=" + std::to_wstring(value));
        if (duringValue) duringValue();
        return 1359;  // results are ignored
    }
    int OnNamed(const qv::StringW& name, bool flag) override {
        journal_.Add(name_ + L":named=" + name.c_str() + (flag ? L",true" : L",false"));
        return 0;
    }
    int OnOther(int value) override {
        journal_.Add(name_ + L":other=" + std::to_wstring(value));
        return 0;
    }

    std::function<void()> duringValue;

private:
    Journal& journal_;
    std::wstring name_;
};

using ValueSinks = qv::SynchronyzedObjectContainer<IValueEvents*>;
using OtherSinks = qv::SynchronyzedObjectContainer<IOtherEvents*>;
using ValueChanged = qv::Event<qv::MemberFunction_1_args<IValueEvents, int, int, &IValueEvents::OnValue>>;
using NamedChanged = qv::Event<
    qv::MemberFunction_2_args<IValueEvents, int, const qv::StringW&, bool, &IValueEvents::OnNamed>>;
using OtherChanged = qv::Event<qv::MemberFunction_1_args<IOtherEvents, int, int, &IOtherEvents::OnOther>>;

class SinkContainerTest : public testing::Test {
protected:
    Journal journal;
    Sink a{journal, L"a"}, b{journal, L"b"}, c{journal, L"c"};

    ValueSinks valueSinks;
    ValueSinks spareSinks;
    OtherSinks otherSinks;
    ValueChanged valueChanged{valueSinks};
    NamedChanged namedChanged{valueSinks};
    ValueChanged spareChanged{spareSinks};
    OtherChanged otherChanged{otherSinks};
};

} // namespace

TEST_F(SinkContainerTest, DuplicateRegistrationFailsAndTheSinkHearsEachEventOnce) {
    EXPECT_EQ(0u, valueSinks.Register(&a));
    EXPECT_EQ(1627u, valueSinks.Register(&a));
    valueChanged.Fire(5);
    namedChanged.Fire(qv::StringW(L"scan"), true);
    EXPECT_EQ((Lines{L"a:value=5", L"a:named=scan,true"}), journal.Take());
}

TEST_F(SinkContainerTest, NullAndUnknownSinksAreRejected) {
    EXPECT_EQ(87u, valueSinks.Register(nullptr));
    EXPECT_EQ(87u, valueSinks.Unregister(nullptr));
    EXPECT_EQ(1627u, valueSinks.Unregister(&a));
    ASSERT_EQ(0u, valueSinks.Register(&a));
    EXPECT_EQ(0u, valueSinks.Unregister(&a));
    EXPECT_EQ(1627u, valueSinks.Unregister(&a));
    valueChanged.Fire(1);
    EXPECT_TRUE(journal.Take().empty());
}

TEST_F(SinkContainerTest, RemovingTheMiddleSinkKeepsTheOthersInOrder) {
    for (Sink* sink : {&a, &b, &c}) ASSERT_EQ(0u, valueSinks.Register(sink));
    valueChanged.Fire(1);
    EXPECT_EQ((Lines{L"a:value=1", L"b:value=1", L"c:value=1"}), journal.Take());
    ASSERT_EQ(0u, valueSinks.Unregister(&b));
    valueChanged.Fire(2);
    EXPECT_EQ((Lines{L"a:value=2", L"c:value=2"}), journal.Take());
    ASSERT_EQ(0u, valueSinks.Register(&b));
    namedChanged.Fire(qv::StringW(L"x"), false);
    EXPECT_EQ((Lines{L"a:named=x,false", L"c:named=x,false", L"b:named=x,false"}), journal.Take());
}

TEST_F(SinkContainerTest, ASinkHearsNothingFromContainersItIsNotRegisteredWith) {
    ASSERT_EQ(0u, valueSinks.Register(&a));
    spareChanged.Fire(1);
    otherChanged.Fire(2);
    EXPECT_TRUE(journal.Take().empty());
    valueChanged.Fire(3);
    EXPECT_EQ((Lines{L"a:value=3"}), journal.Take());
}

TEST_F(SinkContainerTest, ManualLoopHandsOutEverySinkWithTheEventsStub) {
    ASSERT_EQ(0u, valueSinks.Register(&a));
    ASSERT_EQ(0u, valueSinks.Register(&b));
    EXPECT_TRUE(valueChanged.method() == &IValueEvents::OnValue);

    qv::EventCursor* cursor = nullptr;
    ASSERT_TRUE(valueChanged.begin(cursor));
    ASSERT_NE(nullptr, cursor);
    std::vector<IValueEvents*> handedOut;
    IValueEvents* sink = nullptr;
    ValueChanged::Stub stub = nullptr;
    while (valueChanged.next(cursor, sink, stub)) {
        EXPECT_TRUE(stub == valueChanged.method());
        handedOut.push_back(sink);
        (sink->*stub)(7);
    }
    EXPECT_FALSE(valueChanged.next(cursor, sink, stub));
    valueChanged.end(cursor);
    EXPECT_EQ((std::vector<IValueEvents*>{&a, &b}), handedOut);
    EXPECT_EQ((Lines{L"a:value=7", L"b:value=7"}), journal.Take());
    EXPECT_FALSE(valueChanged.next(nullptr, sink, stub));
    valueChanged.end(nullptr);

    // The shared lock is given back: another thread can change the container.
    std::atomic<uint32_t> result{0xFFFFFFFF};
    TestThread registrar([&] { result = valueSinks.Register(&c); });
    EXPECT_TRUE(registrar.Finished(kProceedMs));
    EXPECT_EQ(0u, result.load());
}

TEST_F(SinkContainerTest, RegistrationWaitsUntilTheRunningNotificationEnds) {
    ASSERT_EQ(0u, valueSinks.Register(&a));
    Signal inside, proceed;
    a.duringValue = [&] {
        inside.Set();
        proceed.Wait(3 * kProceedMs);
    };
    TestThread notifier([&] { valueChanged.Fire(1); });
    ASSERT_TRUE(inside.Wait(kProceedMs));

    std::atomic<uint32_t> result{0xFFFFFFFF};
    TestThread registrar([&] { result = valueSinks.Register(&b); });
    EXPECT_FALSE(registrar.Finished(kBlockedMs));
    proceed.Set();
    EXPECT_TRUE(notifier.Finished(kProceedMs));
    EXPECT_TRUE(registrar.Finished(kProceedMs));
    EXPECT_EQ(0u, result.load());
    EXPECT_EQ((Lines{L"a:value=1"}), journal.Take());

    a.duringValue = nullptr;
    valueChanged.Fire(2);
    EXPECT_EQ((Lines{L"a:value=2", L"b:value=2"}), journal.Take());
}

TEST_F(SinkContainerTest, ASinkMayReadTheContainerAgainWhileARegistrationWaits) {
    ASSERT_EQ(0u, valueSinks.Register(&a));
    std::atomic<uint32_t> result{0xFFFFFFFF};
    std::unique_ptr<TestThread> registrar;
    size_t countSeenInside = 0;
    a.duringValue = [&] {
        registrar = std::make_unique<TestThread>([&] { result = valueSinks.Register(&b); });
        Sleep(kBlockedMs);  // the registrar is now queued as a writer
        {
            qv::ReadLockScope again(valueSinks);
            countSeenInside = valueSinks.Count();
        }
        namedChanged.Fire(qv::StringW(L"nested"), true);
    };
    // Fired on a thread of its own so that a deadlock fails the test instead of hanging it.
    TestThread notifier([&] { valueChanged.Fire(1); });
    ASSERT_TRUE(notifier.Finished(kProceedMs));
    EXPECT_EQ(1u, countSeenInside);
    EXPECT_EQ((Lines{L"a:value=1", L"a:named=nested,true"}), journal.Take());
    ASSERT_TRUE(registrar);
    EXPECT_TRUE(registrar->Finished(kProceedMs));
    EXPECT_EQ(0u, result.load());
}

TEST_F(SinkContainerTest, NotificationsOfOneContainerRunSideBySide) {
    ASSERT_EQ(0u, valueSinks.Register(&a));
    std::atomic<int> arrived{0};
    std::atomic<int> metTheOther{0};
    Signal both;
    a.duringValue = [&] {
        if (++arrived == 2) both.Set();
        if (both.Wait(kProceedMs)) ++metTheOther;
    };
    TestThread first([&] { valueChanged.Fire(1); });
    TestThread second([&] { valueChanged.Fire(2); });
    EXPECT_TRUE(first.Finished(2 * kProceedMs));
    EXPECT_TRUE(second.Finished(2 * kProceedMs));
    EXPECT_EQ(2, metTheOther.load());
}
