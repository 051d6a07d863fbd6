// The reader-writer lock's reader table: it grows on the heap past its inline entries and the lock
// gives that storage back when it is destroyed, and nothing else. This program replaces the
// array allocation functions to watch exactly that, so it stands apart from the other lock tests.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#include "support/SyncRWLock.h"

namespace {
bool g_tracking = false;
void* g_live[64];
int g_liveCount = 0;
int g_strays = 0; // blocks given back that the watched code never got from the heap
} // namespace

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    void* block = std::malloc(size != 0 ? size : 1);
    if (g_tracking && block != nullptr && g_liveCount < 64) g_live[g_liveCount++] = block;
    return block;
}

void operator delete[](void* block) noexcept {
    if (block == nullptr) return;
    if (g_tracking) {
        for (int i = 0; i < g_liveCount; ++i) {
            if (g_live[i] == block) {
                g_live[i] = g_live[--g_liveCount];
                std::free(block);
                return;
            }
        }
        ++g_strays;
        return; // not the heap's: handing it to free would corrupt it
    }
    std::free(block);
}

void operator delete[](void* block, std::size_t) noexcept { operator delete[](block); }

namespace {

// Thread ids stand for reading threads: the lock keys its bookkeeping by the id it is given.
void ReadAndRelease(qv::CSyncRWLock& lock, uint32_t readers) {
    for (uint32_t id = 1; id <= readers; ++id) lock.AcquireRead(1000 + id);
    for (uint32_t id = 1; id <= readers; ++id) lock.ReleaseRead(1000 + id);
}

TEST(SyncRWLockMemory, ReaderTableIsGivenBackWithTheLockAndNothingElseIs) {
    for (uint32_t readers : {1u, 8u, 9u, 40u}) {
        SCOPED_TRACE(readers);
        g_liveCount = 0;
        g_strays = 0;
        g_tracking = true;
        {
            qv::CSyncRWLock lock;
            ReadAndRelease(lock, readers);
            ReadAndRelease(lock, readers); // the grown table is reused, not grown again
            if (readers > 8) {
                EXPECT_EQ(1, g_liveCount) << "the grown table, and only the last one";
            }
        }
        g_tracking = false;
        EXPECT_EQ(0, g_liveCount) << "reader table leaked";
        EXPECT_EQ(0, g_strays) << "storage given back that was never allocated";
    }
}

} // namespace
