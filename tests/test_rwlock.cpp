// The reader-writer lock with real threads: recursion, writer preference and hand-over, and
// misuse, which must end the process (checked in a child run of this same program).
#include <gtest/gtest.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <vector>

#include "support/SyncRWLock.h"
#include "tests/common/ChildProcess.h"
#include "tests/common/LockProbe.h"
#include "tests/common/ThreadProbe.h"

using qv::CSyncRWLock;
using qvtest::kProceedMs;
using qvtest::Signal;
using qvtest::StateOf;
using qvtest::TestThread;
using qvtest::WaitForWaiters;

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

    // Lets the holder go and waits until it has released the lock.
    bool LetGo() {
        release.Set();
        return released.Wait(kProceedMs);
    }

    Signal acquired, release, released;

private:
    TestThread thread_;
};

TEST(SyncRWLock, ReaderRecursionHoldsTheLockUntilTheLastRelease) {
    CSyncRWLock lock;
    lock.AcquireRead(0);
    lock.AcquireRead(0);
    Holder writer(lock, Mode::Write);
    ASSERT_TRUE(WaitForWaiters(lock, 0, 1));
    lock.ReleaseRead(0);
    EXPECT_EQ(1u, StateOf(lock).writersWaiting) << "handed over while a read was still held";
    EXPECT_FALSE(writer.acquired.IsSet());
    lock.ReleaseRead(0);
    EXPECT_TRUE(writer.acquired.Wait(kProceedMs));
    EXPECT_TRUE(writer.LetGo());
}

TEST(SyncRWLock, WriterMayReadAndWriteAgainAndFreesOnlyAtDepthZero) {
    for (bool writesFirst : {true, false}) {
        SCOPED_TRACE(writesFirst ? "write releases first" : "read release first");
        CSyncRWLock lock;
        lock.AcquireWrite(0);
        lock.AcquireRead(0);
        lock.AcquireWrite(0);
        Holder reader(lock, Mode::Read);
        ASSERT_TRUE(WaitForWaiters(lock, 1, 0));
        lock.ReleaseWrite(0);
        writesFirst ? lock.ReleaseWrite(0) : lock.ReleaseRead(0);
        EXPECT_EQ(1u, StateOf(lock).readersWaiting) << "handed over while the writer still held it";
        EXPECT_FALSE(reader.acquired.IsSet());
        writesFirst ? lock.ReleaseRead(0) : lock.ReleaseWrite(0);
        EXPECT_TRUE(reader.acquired.Wait(kProceedMs));
        EXPECT_TRUE(reader.LetGo());
    }
}

TEST(SyncRWLock, WaitingWriterKeepsNewReadersOutButNotARecursiveOne) {
    CSyncRWLock lock;
    Signal first, again, done;
    TestThread reader([&] {
        lock.AcquireRead(0);
        first.Set();
        again.Wait(3 * kProceedMs);
        lock.AcquireRead(0); // already a reader: must not queue behind the writer
        lock.ReleaseRead(0);
        lock.ReleaseRead(0);
        done.Set();
    });
    ASSERT_TRUE(first.Wait(kProceedMs));
    Holder writer(lock, Mode::Write);
    ASSERT_TRUE(WaitForWaiters(lock, 0, 1));
    Holder latecomer(lock, Mode::Read);
    ASSERT_TRUE(WaitForWaiters(lock, 1, 1)) << "a new reader went past a waiting writer";
    EXPECT_FALSE(latecomer.acquired.IsSet());

    again.Set();
    EXPECT_TRUE(done.Wait(kProceedMs));
    EXPECT_TRUE(writer.acquired.Wait(kProceedMs));
    EXPECT_EQ(1u, StateOf(lock).readersWaiting) << "the reader went in beside the writer";
    EXPECT_FALSE(latecomer.acquired.IsSet());
    EXPECT_TRUE(writer.LetGo());
    EXPECT_TRUE(latecomer.acquired.Wait(kProceedMs));
}

TEST(SyncRWLock, FinishedWriterHandsOverToOneWriterThenToAllReaders) {
    CSyncRWLock lock;
    lock.AcquireWrite(0);
    std::vector<std::unique_ptr<Holder>> writers, readers;
    for (int i = 0; i < 2; ++i) writers.push_back(std::make_unique<Holder>(lock, Mode::Write));
    for (int i = 0; i < 3; ++i) readers.push_back(std::make_unique<Holder>(lock, Mode::Read));
    ASSERT_TRUE(WaitForWaiters(lock, 3, 2));
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
    const qvtest::LockState handed = StateOf(lock);
    EXPECT_EQ(1u, handed.writersWaiting);
    EXPECT_EQ(3u, handed.readersWaiting);
    EXPECT_FALSE(last.acquired.IsSet());
    EXPECT_EQ(0, count(readers));

    EXPECT_TRUE(next.LetGo());
    EXPECT_TRUE(last.acquired.Wait(kProceedMs));
    EXPECT_EQ(3u, StateOf(lock).readersWaiting) << "readers went in while a writer waited";
    EXPECT_EQ(0, count(readers));

    // The readers hold together: none lets go before all three are in.
    EXPECT_TRUE(last.LetGo());
    for (const auto& reader : readers) EXPECT_TRUE(reader->acquired.Wait(kProceedMs));
    for (const auto& reader : readers) EXPECT_FALSE(reader->released.IsSet());
}

// ---- Misuse, each in a child process ----

using testing_support::ChildMode;
using testing_support::RunChild;

constexpr DWORD kTerminatedExit = 77;

// Proves that the lock ended the process through std::terminate; a child that returns exits with 0.
void ExitOnTerminate() {
    std::set_terminate([] { std::_Exit(static_cast<int>(kTerminatedExit)); });
}

const ChildMode childModes[] = {
    {"rwlock-legal",
     [] {
         ExitOnTerminate();
         CSyncRWLock l;
         l.AcquireRead(0);
         l.AcquireRead(0);
         l.ReleaseRead(0);
         l.ReleaseRead(0);
         l.AcquireWrite(0);
         l.AcquireRead(0);
         l.ReleaseWrite(0);
         l.ReleaseRead(0);
     }},
    {"rwlock-release-read-free",
     [] {
         ExitOnTerminate();
         CSyncRWLock l;
         l.ReleaseRead(0);
     }},
    {"rwlock-release-read-of-other",
     [] {
         ExitOnTerminate();
         CSyncRWLock l;
         l.AcquireRead(4242);
         l.ReleaseRead(0);
     }},
    {"rwlock-writer-releases-read",
     [] {
         ExitOnTerminate();
         CSyncRWLock l;
         l.AcquireWrite(0);
         l.ReleaseRead(0);
     }},
    {"rwlock-release-read-of-reading-writer",
     [] {
         ExitOnTerminate();
         CSyncRWLock l;
         l.AcquireWrite(4242);
         l.AcquireRead(4242);
         l.ReleaseRead(0);
     }},
    {"rwlock-release-write-of-other",
     [] {
         ExitOnTerminate();
         CSyncRWLock l;
         l.AcquireWrite(4242);
         l.ReleaseWrite(0);
     }},
    {"rwlock-release-write-free",
     [] {
         ExitOnTerminate();
         CSyncRWLock l;
         l.ReleaseWrite(0);
     }},
    {"rwlock-upgrade",
     [] {
         ExitOnTerminate();
         CSyncRWLock l;
         l.AcquireRead(0);
         l.AcquireWrite(0);
     }},
    {"rwlock-upgrade-unhandled",
     [] {
         CSyncRWLock l;
         l.AcquireRead(0);
         l.AcquireWrite(0);
     }},
};

TEST(SyncRWLockMisuse, EachMisuseEndsTheProcessThroughTerminate) {
    for (const char* name : {"rwlock-release-read-free", "rwlock-release-read-of-other", "rwlock-writer-releases-read",
                             "rwlock-release-read-of-reading-writer", "rwlock-release-write-of-other",
                             "rwlock-release-write-free", "rwlock-upgrade"}) {
        EXPECT_EQ(kTerminatedExit, RunChild(name)) << name;
    }
    EXPECT_EQ(0u, RunChild("rwlock-legal"));
    const DWORD code = RunChild("rwlock-upgrade-unhandled"); // no handler: ends abnormally
    EXPECT_NE(0u, code);
    EXPECT_NE(0xFFFFFFFFu, code);
}

} // namespace
