// The two exports and the single object behind them, driven through LoadLibraryW and
// GetProcAddress as the host service does.
#include "host/LogCapture.h"
#include "sdk/PluginIds.h"
#include "tests/common/PluginHarness.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;
namespace ids = qv::kxsdk::ids;

constexpr GUID kUnknownId = qv::MakeInterfaceId(0x1122334455667788ull, 0x99AABBCCDDEEFF00ull);

// The object's destructor drops its logging reference, the last one on the plug-in's log.dll
// instance, so LogDeinit counts destructions.
int Destructions() { return avhost::Counters().deinitCalls; }

class Exports : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(library.Loaded());
        ASSERT_NE(nullptr, library.create);
        ASSERT_NE(nullptr, library.destroy);
        avhost::ClearCapturedLines();
    }
    PluginLibrary library;
};

TEST_F(Exports, OneObjectForManyCreates) {
    void* a = nullptr;
    void* b = nullptr;
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &a));
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &b));
    EXPECT_EQ(a, b);
    int before = Destructions();
    library.Destroy(a);
    EXPECT_EQ(before, Destructions()) << "one reference is still outstanding";
    library.Destroy(b);
    EXPECT_EQ(before + 1, Destructions());
}

TEST_F(Exports, FourIdsAndTheSecondFace) {
    void* primary = nullptr;
    void* servPlugin = nullptr;
    void* delayed = nullptr;
    void* scan = nullptr;
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &primary));
    ASSERT_EQ(0u, library.Create(ids::kServPluginFaceId, &servPlugin));
    ASSERT_EQ(0u, library.Create(ids::kDelayedServPluginFaceId, &delayed));
    ASSERT_EQ(0u, library.Create(ids::kAntivirusScanFaceId, &scan));
    EXPECT_EQ(primary, servPlugin);
    EXPECT_EQ(primary, delayed);
    EXPECT_NE(nullptr, scan);
    EXPECT_NE(primary, scan);
    // QueryInterface (slot 0) answers the same faces without counting.
    EXPECT_EQ(scan, CallSlot<void*>(primary, kQueryInterface, &ids::kAntivirusScanFaceId));
    EXPECT_EQ(nullptr, CallSlot<void*>(primary, kQueryInterface, &kUnknownId));
    for (int i = 0; i < 4; ++i) library.Destroy(primary);
}

TEST_F(Exports, UnknownIdAndUnknownName) {
    void* out = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(1168u, library.Create(kUnknownId, &out));
    EXPECT_EQ(nullptr, out);

    out = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(1168u, library.create(L"antivirusscan", ids::kPrimaryFaceId, &out)) << "names are case-sensitive";
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(1168u, library.create(nullptr, ids::kPrimaryFaceId, &out));
    EXPECT_EQ(87u, library.create(L"AntivirusScan", ids::kPrimaryFaceId, nullptr));
    EXPECT_EQ(0u, library.destroy(L"NoSuchObject", nullptr));
    EXPECT_EQ(0u, library.destroy(nullptr, nullptr));

    // The failed create gave its reference back: one create and one destroy end the object.
    int before = Destructions();
    void* a = nullptr;
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &a));
    EXPECT_EQ(1168u, library.Create(kUnknownId, &out));
    library.Destroy(a);
    EXPECT_EQ(before + 1, Destructions());
}

TEST_F(Exports, CountAsymmetryIsKept) {
    void* a = nullptr;
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &a));
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &a));
    int before = Destructions();
    library.Destroy(a);
    library.Destroy(a);
    EXPECT_EQ(before + 1, Destructions());
    // A third destroy drives the count to -1 without effect; any pointer counts as a release.
    library.Destroy(reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(before + 1, Destructions());
    // The next create builds a fresh object with the count back at 0 ...
    void* b = nullptr;
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &b));
    ASSERT_NE(nullptr, b);
    // ... so a destroy takes it to -1 again and destroys nothing; the next one neither.
    library.Destroy(b);
    EXPECT_EQ(before + 1, Destructions());
    // Two creates bring it to 1; one destroy reaches 0 and destroys.
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &b));
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &b));
    library.Destroy(b);
    EXPECT_EQ(before + 2, Destructions());
}

TEST_F(Exports, UnloadWithReferencesOutstandingDestroysTheObject) {
    void* a = nullptr;
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &a));
    ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &a));
    int before = Destructions();
    library.Unload();
    EXPECT_EQ(before + 1, Destructions());
    // Loading again starts from a fresh registry.
    PluginLibrary again;
    ASSERT_TRUE(again.Loaded());
    void* b = nullptr;
    EXPECT_EQ(0u, again.Create(ids::kPrimaryFaceId, &b));
    again.Destroy(b);
}

TEST_F(Exports, ConcurrentCreatesShareOneObject) {
    constexpr int kThreads = 8;
    void* results[kThreads] = {};
    HANDLE threads[kThreads];
    struct Arg { PluginLibrary* library; void** out; } args[kThreads];
    for (int i = 0; i < kThreads; ++i) {
        args[i] = {&library, &results[i]};
        threads[i] = CreateThread(nullptr, 0, [](void* p) -> DWORD {
            auto* arg = static_cast<Arg*>(p);
            return arg->library->Create(ids::kPrimaryFaceId, arg->out);
        }, &args[i], 0, nullptr);
    }
    WaitForMultipleObjects(kThreads, threads, TRUE, 30000);
    for (int i = 0; i < kThreads; ++i) {
        CloseHandle(threads[i]);
        EXPECT_EQ(results[0], results[i]);
    }
    int before = Destructions();
    for (int i = 0; i < kThreads; ++i) library.Destroy(results[i]);
    EXPECT_EQ(before + 1, Destructions());
}

} // namespace
