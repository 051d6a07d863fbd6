// Sink containers and events, with sink interfaces of the tests' own: registration results,
// notification order, isolation between containers, and the locking while notifications run.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <utility>
#include <mutex>
#include <string>
#include <vector>

#include "support/SinkContainer.h"
#include "sdk/StringT.h"
#include "tests/common/LockProbe.h"
#include "tests/common/ThreadProbe.h"

using qvtest::kProceedMs;
using qvtest::Signal;
using qvtest::TestThread;
using Lines = std::vector<std::wstring>;

namespace {

struct IValueEvents {
    virtual int OnValue(int value) = 0;
    virtual int OnNamed(const qv::StringW& name, bool flag) = 0;
};

class Journal {
public:
    void Add(const std::wstring& line) {
        std::lock_guard<std::mutex> hold(mutex_);
        lines_.push_back(line);
    }
    Lines Take() {
        std::lock_guard<std::mutex> hold(mutex_);
        return std::exchange(lines_, Lines());
    }

private:
    std::mutex mutex_;
    Lines lines_;
};

class Sink : public IValueEvents {
public:
    Sink(Journal& journal, const wchar_t* name) : journal_(journal), name_(name) {}

    int OnValue(int value) override {
        journal_.Add(name_ + L":value=" + std::to_wstring(value));
        if (duringValue) duringValue();
        return 1359; // results are ignored
    }
    int OnNamed(const qv::StringW& name, bool flag) override {
        journal_.Add(name_ + L":named=" + name.c_str() + (flag ? L",1" : L",0"));
        return 0;
    }

    std::function<void()> duringValue;

private:
    Journal& journal_;
    std::wstring name_;
};

using ValueSinks = qv::SynchronyzedObjectContainer<IValueEvents*>;
using ValueChanged = qv::Event<qv::MemberFunction_1_args<IValueEvents, int, int, &IValueEvents::OnValue>>;
using NamedChanged =
    qv::Event<qv::MemberFunction_2_args<IValueEvents, int, const qv::StringW&, bool, &IValueEvents::OnNamed>>;

class SinkContainerTest : public testing::Test {
protected:
    Journal journal;
    Sink a{journal, L"a"}, b{journal, L"b"}, c{journal, L"c"};

    ValueSinks valueSinks;
    ValueSinks spareSinks;
    ValueChanged valueChanged{valueSinks};
    NamedChanged namedChanged{valueSinks};
    ValueChanged spareChanged{spareSinks};
};

} // namespace

TEST_F(SinkContainerTest, RegistrationResults) {
    EXPECT_EQ(87u, valueSinks.Register(nullptr));
    EXPECT_EQ(87u, valueSinks.Unregister(nullptr));
    EXPECT_EQ(1627u, valueSinks.Unregister(&a));
    EXPECT_EQ(0u, valueSinks.Register(&a));
    EXPECT_EQ(1627u, valueSinks.Register(&a));
    valueChanged.Fire(5);
    namedChanged.Fire(qv::StringW(L"scan"), true);
    EXPECT_EQ((Lines{L"a:value=5", L"a:named=scan,1"}), journal.Take()); // heard once
    EXPECT_EQ(0u, valueSinks.Unregister(&a));
    EXPECT_EQ(1627u, valueSinks.Unregister(&a));
    valueChanged.Fire(1);
    EXPECT_TRUE(journal.Take().empty());
}

TEST_F(SinkContainerTest, RemovingTheMiddleSinkKeepsTheOthersInOrder) {
    for (Sink* sink : {&a, &b, &c}) ASSERT_EQ(0u, valueSinks.Register(sink));
    ASSERT_EQ(0u, valueSinks.Unregister(&b));
    valueChanged.Fire(2);
    EXPECT_EQ((Lines{L"a:value=2", L"c:value=2"}), journal.Take());
    ASSERT_EQ(0u, valueSinks.Register(&b));
    namedChanged.Fire(qv::StringW(L"x"), false);
    EXPECT_EQ((Lines{L"a:named=x,0", L"c:named=x,0", L"b:named=x,0"}), journal.Take());
}

TEST_F(SinkContainerTest, ASinkHearsNothingFromContainersItIsNotRegisteredWith) {
    ASSERT_EQ(0u, valueSinks.Register(&a));
    spareChanged.Fire(1);
    EXPECT_TRUE(journal.Take().empty());
    valueChanged.Fire(3);
    EXPECT_EQ((Lines{L"a:value=3"}), journal.Take());
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
    ASSERT_TRUE(qvtest::WaitForWaiters(valueSinks, 0, 1)) << "the registration did not wait for the notification";
    EXPECT_FALSE(registrar.Finished(0));
    proceed.Set();
    EXPECT_TRUE(notifier.Finished(kProceedMs));
    EXPECT_TRUE(registrar.Finished(kProceedMs));
    EXPECT_EQ(0u, result.load());
    EXPECT_EQ((Lines{L"a:value=1"}), journal.Take());
}
