// The reader-writer lock with real threads: recursion, writer preference and hand-over, and
// misuse, which must end the process (checked in a child run of this same program).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <memory>
#include <vector>

#include "support/SyncRWLock.h"
#include "tests/common/ChildProcess.h"
#include "tests/common/ThreadProbe.h"

using qv::CSyncRWLock;
using qvtest::kBlockedMs;
using qvtest::kProceedMs;
using qvtest::Signal;
using qvtest::TestThread;

namespace {

enum class Mode { Read, Write };

// A thread that takes the lock, reports it, holds it until told to let go, then releases it.
class Holder {
public:
    Holder(CSyncRWLock& lock, Mode mode)
        : thread_([this, &lock, mode] {
              mode == Mode::Read ? lock.AcquireRead(0) : lock.AcquireWrite(0);
              acquired.Set();
              release.Wait(3 * kProceedMs);
              mode == Mode::Read ? lock.ReleaseRead(0) : lock.ReleaseWrite(0);
              released.Set();
          }) {}
    ~Holder() { release.Set(); }

    Signal acquired;
    Signal release;
    Signal released;

private:
    TestThread thread_;
};

// Lets the holder go and waits until it has released the lock.
bool LetGo(Holder& holder) {
    holder.release.Set();
    return holder.released.Wait(kProceedMs);
}

} // namespace

TEST(SyncRWLock, ReaderRecursionHoldsTheLockUntilTheLastRelease) {
    CSyncRWLock lock;
    lock.AcquireRead(0);
    lock.AcquireRead(0);
    Holder writer(lock, Mode::Write);
    EXPECT_FALSE(writer.acquired.Wait(kBlockedMs));
    lock.ReleaseRead(0);
    EXPECT_FALSE(writer.acquired.Wait(kBlockedMs));
    lock.ReleaseRead(0);
    EXPECT_TRUE(writer.acquired.Wait(kProceedMs));
    EXPECT_TRUE(LetGo(writer));
}

TEST(SyncRWLock, ReadersShareAndTheWriterWaitsForAllOfThem) {
    CSyncRWLock lock;
    Holder first(lock, Mode::Read);
    Holder second(lock, Mode::Read);
    ASSERT_TRUE(first.acquired.Wait(kProceedMs));
    ASSERT_TRUE(second.acquired.Wait(kProceedMs));
    Holder writer(lock, Mode::Write);
    EXPECT_FALSE(writer.acquired.Wait(kBlockedMs));
    EXPECT_TRUE(LetGo(first));
    EXPECT_FALSE(writer.acquired.Wait(kBlockedMs));
    EXPECT_TRUE(LetGo(second));
    EXPECT_TRUE(writer.acquired.Wait(kProceedMs));
}

TEST(SyncRWLock, ReadsOnBehalfOfManyThreadsAreTrackedPerThread) {
    // More simultaneous readers than the lock keeps inline, acquired out of id order.
    CSyncRWLock lock;
    std::vector<uint32_t> ids;
    for (uint32_t i = 0; i < 24; ++i) ids.push_back(1000 + (i * 7) % 24);
    for (uint32_t id : ids) lock.AcquireRead(id);
    for (uint32_t id : ids) lock.AcquireRead(id);
    Holder writer(lock, Mode::Write);
    for (uint32_t id : ids) lock.ReleaseRead(id);
    for (size_t i = 0; i + 1 < ids.size(); ++i) lock.ReleaseRead(ids[i]);
    EXPECT_FALSE(writer.acquired.Wait(kBlockedMs));
    lock.ReleaseRead(ids.back());
    EXPECT_TRUE(writer.acquired.Wait(kProceedMs));
    EXPECT_TRUE(LetGo(writer));
}

TEST(SyncRWLock, WriterMayReadAndWriteAgainAndFreesOnlyAtDepthZero) {
    for (bool writesFirst : {true, false}) {
        SCOPED_TRACE(writesFirst ? "write releases first" : "read release first");
        CSyncRWLock lock;
        lock.AcquireWrite(0);
        lock.AcquireRead(0);
        lock.AcquireWrite(0);
        Holder reader(lock, Mode::Read);
        EXPECT_FALSE(reader.acquired.Wait(kBlockedMs));
        if (writesFirst) {
            lock.ReleaseWrite(0);
            lock.ReleaseWrite(0);
        } else {
            lock.ReleaseRead(0);
            lock.ReleaseWrite(0);
        }
        EXPECT_FALSE(reader.acquired.Wait(kBlockedMs));
        writesFirst ? lock.ReleaseRead(0) : lock.ReleaseWrite(0);
        EXPECT_TRUE(reader.acquired.Wait(kProceedMs));
        EXPECT_TRUE(LetGo(reader));
    }
}

TEST(SyncRWLock, WaitingWriterKeepsNewReadersOutWhileOthersRead) {
    CSyncRWLock lock;
    Holder reader(lock, Mode::Read);
    ASSERT_TRUE(reader.acquired.Wait(kProceedMs));
    Holder writer(lock, Mode::Write);
    EXPECT_FALSE(writer.acquired.Wait(kBlockedMs));
    Holder latecomer(lock, Mode::Read);
    EXPECT_FALSE(latecomer.acquired.Wait(kBlockedMs));

    EXPECT_TRUE(LetGo(reader));
    EXPECT_TRUE(writer.acquired.Wait(kProceedMs));
    EXPECT_FALSE(latecomer.acquired.Wait(kBlockedMs));
    EXPECT_TRUE(LetGo(writer));
    EXPECT_TRUE(latecomer.acquired.Wait(kProceedMs));
}

TEST(SyncRWLock, AReaderMayReadAgainWhileAWriterWaits) {
    CSyncRWLock lock;
    Signal first, again, done;
    TestThread reader([&] {
        lock.AcquireRead(0);
        first.Set();
        again.Wait(3 * kProceedMs);
        lock.AcquireRead(0);
        lock.ReleaseRead(0);
        lock.ReleaseRead(0);
        done.Set();
    });
    ASSERT_TRUE(first.Wait(kProceedMs));
    Holder writer(lock, Mode::Write);
    EXPECT_FALSE(writer.acquired.Wait(kBlockedMs));
    again.Set();
    EXPECT_TRUE(done.Wait(kProceedMs));
    EXPECT_TRUE(writer.acquired.Wait(kProceedMs));
}

TEST(SyncRWLock, FinishedWriterHandsOverToOneWriterThenToAllReaders) {
    CSyncRWLock lock;
    lock.AcquireWrite(0);
    std::vector<std::unique_ptr<Holder>> writers, readers;
    for (int i = 0; i < 2; ++i) writers.push_back(std::make_unique<Holder>(lock, Mode::Write));
    for (int i = 0; i < 3; ++i) readers.push_back(std::make_unique<Holder>(lock, Mode::Read));
    Sleep(kBlockedMs);  // let all five reach their gates
    auto count = [](const std::vector<std::unique_ptr<Holder>>& holders) {
        int n = 0;
        for (const auto& h : holders) n += h->acquired.IsSet() ? 1 : 0;
        return n;
    };
    EXPECT_EQ(0, count(writers) + count(readers));

    lock.ReleaseWrite(0);
    HANDLE writerEvents[] = {writers[0]->acquired.Handle(), writers[1]->acquired.Handle()};
    const DWORD woken = WaitForMultipleObjects(2, writerEvents, FALSE, kProceedMs);
    ASSERT_LT(woken, WAIT_OBJECT_0 + 2);
    Holder& next = *writers[woken - WAIT_OBJECT_0];
    Holder& last = *writers[1 - (woken - WAIT_OBJECT_0)];
    EXPECT_FALSE(last.acquired.Wait(kBlockedMs));
    EXPECT_EQ(0, count(readers));

    EXPECT_TRUE(LetGo(next));
    EXPECT_TRUE(last.acquired.Wait(kProceedMs));
    EXPECT_FALSE(readers[0]->acquired.Wait(kBlockedMs));
    EXPECT_EQ(0, count(readers));

    // The readers hold together: none lets go before all three are in.
    EXPECT_TRUE(LetGo(last));
    for (const auto& reader : readers) EXPECT_TRUE(reader->acquired.Wait(kProceedMs));
    for (const auto& reader : readers) EXPECT_FALSE(reader->released.IsSet());
}

TEST(SyncRWLock, ConcurrentReadersNeverOverlapAWriter) {
    CSyncRWLock lock;
    std::atomic<int> readers{0}, writers{0}, violations{0};
    auto work = [&](int seed) {
        for (int i = 0; i < 20000; ++i) {
            if ((i + seed) % 5 == 0) {
                lock.AcquireWrite(0);
                if (writers.fetch_add(1) != 0 || readers.load() != 0) ++violations;
                lock.AcquireRead(0);
                writers.fetch_sub(1);
                lock.ReleaseWrite(0);
                lock.ReleaseRead(0);
            } else {
                lock.AcquireRead(0);
                lock.AcquireRead(0);
                readers.fetch_add(1);
                if (writers.load() != 0) ++violations;
                readers.fetch_sub(1);
                lock.ReleaseRead(0);
                lock.ReleaseRead(0);
            }
        }
    };
    std::vector<std::unique_ptr<TestThread>> threads;
    for (int t = 0; t < 6; ++t) threads.push_back(std::make_unique<TestThread>([&work, t] { work(t); }));
    for (const auto& thread : threads) EXPECT_TRUE(thread->Finished(6 * kProceedMs));
    EXPECT_EQ(0, violations.load());
}

// ---- Misuse, run in a child process ----------------------------------------------------------

namespace {

using testing_support::ChildMode;
using testing_support::RunChild;

constexpr DWORD kTerminatedExit = 77;

// The handler proves that the lock ended the process through std::terminate; a child that
// returns from its routine exits with 0.
void ExitOnTerminate() {
    std::set_terminate([] { std::_Exit(static_cast<int>(kTerminatedExit)); });
}

const ChildMode legalUse("rwlock-legal", [] {
    ExitOnTerminate();
    CSyncRWLock lock;
    lock.AcquireRead(0);
    lock.AcquireRead(0);
    lock.ReleaseRead(0);
    lock.ReleaseRead(0);
    lock.AcquireWrite(0);
    lock.AcquireRead(0);
    lock.ReleaseWrite(0);
    lock.ReleaseRead(0);
});
const ChildMode releaseReadOnFreeLock("rwlock-release-read-on-free-lock", [] {
    ExitOnTerminate();
    CSyncRWLock lock;
    lock.ReleaseRead(0);
});
const ChildMode releaseReadWhileAnotherReads("rwlock-release-read-while-another-reads", [] {
    ExitOnTerminate();
    CSyncRWLock lock;
    lock.AcquireRead(4242);
    lock.ReleaseRead(0);
});
const ChildMode writerReleasesReadItNeverTook("rwlock-writer-releases-read-it-never-took", [] {
    ExitOnTerminate();
    CSyncRWLock lock;
    lock.AcquireWrite(0);
    lock.ReleaseRead(0);
});
const ChildMode releaseWriteByNonWriter("rwlock-release-write-by-non-writer", [] {
    ExitOnTerminate();
    CSyncRWLock lock;
    lock.AcquireWrite(4242);
    lock.ReleaseWrite(0);
});
const ChildMode releaseWriteOnFreeLock("rwlock-release-write-on-free-lock", [] {
    ExitOnTerminate();
    CSyncRWLock lock;
    lock.ReleaseWrite(0);
});
const ChildMode acquireWriteWhileReading("rwlock-acquire-write-while-reading", [] {
    ExitOnTerminate();
    CSyncRWLock lock;
    lock.AcquireRead(0);
    lock.AcquireWrite(0);
});
const ChildMode acquireWriteWhileReadingUnhandled("rwlock-upgrade-without-handler", [] {
    CSyncRWLock lock;
    lock.AcquireRead(0);
    lock.AcquireWrite(0);
});

} // namespace

TEST(SyncRWLockMisuse, EachMisuseEndsTheProcessThroughTerminate) {
    for (const char* name : {"rwlock-release-read-on-free-lock", "rwlock-release-read-while-another-reads",
                             "rwlock-writer-releases-read-it-never-took", "rwlock-release-write-by-non-writer",
                             "rwlock-release-write-on-free-lock", "rwlock-acquire-write-while-reading"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(kTerminatedExit, RunChild(name));
    }
    EXPECT_EQ(0u, RunChild("rwlock-legal"));
}

TEST(SyncRWLockMisuse, WithoutAHandlerTheProcessEndsAbnormally) {
    const DWORD code = RunChild("rwlock-upgrade-without-handler");
    EXPECT_NE(0u, code);
    EXPECT_NE(0xFFFFFFFFu, code);  // neither failed to start nor hung
}
