// The two exports and the single object behind them, driven through LoadLibraryW and
// GetProcAddress as the host service does.
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

constexpr GUID kUnknownId = qv::MakeInterfaceId(0x1122334455667788ull, 0x99AABBCCDDEEFF00ull);

// The object's destructor drops the last reference on the plug-in's log.dll instance, so
// LogDeinit counts destructions.
int Destructions() { return avhost::Counters().deinitCalls; }

class Exports : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(library.Loaded());
        ASSERT_NE(nullptr, library.create);
        ASSERT_NE(nullptr, library.destroy);
    }
    void* Create() {
        void* out = nullptr;
        EXPECT_EQ(0u, library.Create(ids::kPrimaryFaceId, &out));
        return out;
    }
    PluginLibrary library;
};

TEST_F(Exports, OneObjectAndTheCountAsymmetry) {
    void* a = Create();
    EXPECT_EQ(a, Create());
    const int before = Destructions();
    library.Destroy(a);
    EXPECT_EQ(before, Destructions()) << "one reference is still outstanding";
    library.Destroy(a);
    EXPECT_EQ(before + 1, Destructions());
    // A third destroy drives the count to -1 without effect; any pointer counts as a release.
    library.Destroy(reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(before + 1, Destructions());
    // The next create builds a fresh object at count 0: one destroy takes it to -1 again.
    ASSERT_NE(nullptr, Create());
    library.Destroy(a);
    EXPECT_EQ(before + 1, Destructions());
    // Two creates bring it to 1; one destroy reaches 0 and destroys.
    Create();
    library.Destroy(Create());
    EXPECT_EQ(before + 2, Destructions());
}

TEST_F(Exports, FourIdsAndTheSecondFace) {
    void* faces[4] = {};
    const GUID idsInOrder[] = {ids::kPrimaryFaceId, ids::kServPluginFaceId, ids::kDelayedServPluginFaceId,
                               ids::kAntivirusScanFaceId};
    for (int i = 0; i < 4; ++i) ASSERT_EQ(0u, library.Create(idsInOrder[i], &faces[i]));
    EXPECT_EQ(faces[0], faces[1]);
    EXPECT_EQ(faces[0], faces[2]);
    EXPECT_NE(nullptr, faces[3]);
    EXPECT_NE(faces[0], faces[3]);
    // QueryInterface (slot 0) answers the same faces without counting.
    EXPECT_EQ(faces[3], CallSlot<void*>(faces[0], kQueryInterface, &ids::kAntivirusScanFaceId));
    EXPECT_EQ(nullptr, CallSlot<void*>(faces[0], kQueryInterface, &kUnknownId));
    for (int i = 0; i < 4; ++i) library.Destroy(faces[0]);
}

TEST_F(Exports, BadNamesIdsAndOutPointers) {
    void* primary = Create();
    const int before = Destructions();
    std::vector<std::wstring> names = HostileTexts();
    names.push_back(L"antivirusscan"); // names are case-sensitive
    void* out = nullptr;
    for (const std::wstring& name : names) {
        out = reinterpret_cast<void*>(1);
        EXPECT_EQ(1168u, library.create(name.c_str(), ids::kPrimaryFaceId, &out)) << Describe(name);
        EXPECT_EQ(nullptr, out);
        EXPECT_EQ(0u, library.destroy(name.c_str(), primary)) << Describe(name);
    }
    EXPECT_EQ(1168u, library.create(nullptr, ids::kPrimaryFaceId, &out));
    EXPECT_EQ(87u, library.create(ids::kAntivirusScanObjectName, ids::kPrimaryFaceId, nullptr));
    EXPECT_EQ(0u, library.destroy(nullptr, nullptr));

    // Unknown ids: a fixed-seed sample and the known ids with one bit changed in each half.
    std::mt19937_64 random(20240601);
    std::vector<GUID> unknown = {kUnknownId, GUID{}, qv::MakeInterfaceId(~0ull, ~0ull)};
    for (int i = 0; i < 16; ++i) unknown.push_back(qv::MakeInterfaceId(random(), random()));
    for (const GUID& known : {ids::kPrimaryFaceId, ids::kAntivirusScanFaceId}) {
        uint64_t halves[2];
        memcpy(halves, &known, sizeof halves);
        unknown.push_back(qv::MakeInterfaceId(halves[0] ^ 1, halves[1]));
        unknown.push_back(qv::MakeInterfaceId(halves[0], halves[1] ^ (1ull << 63)));
    }
    for (const GUID& id : unknown) {
        out = reinterpret_cast<void*>(1);
        EXPECT_EQ(1168u, library.Create(id, &out));
        EXPECT_EQ(nullptr, out);
        EXPECT_EQ(nullptr, CallSlot<void*>(primary, kQueryInterface, &id));
    }
    // No failed call changed the count: the same object, ended by one destroy.
    EXPECT_EQ(before, Destructions());
    library.Destroy(primary);
    EXPECT_EQ(before + 1, Destructions());
}

TEST_F(Exports, UnloadWithReferencesOutstandingDestroysTheObject) {
    Create();
    Create();
    const int before = Destructions();
    library.Unload();
    EXPECT_EQ(before + 1, Destructions());
    PluginLibrary again;
    void* b = nullptr;
    EXPECT_EQ(0u, again.Create(ids::kPrimaryFaceId, &b));
    again.Destroy(b);
}

// The host calls the exports one at a time, but nothing stops a sibling from calling them from
// its own threads: many threads creating, asking and destroying at once, each pair balanced.
TEST_F(Exports, ManyThreadsCreateAndDestroyAtOnce) {
    constexpr int kThreads = 8, kRounds = 400;
    for (bool held : {true, false}) {
        SCOPED_TRACE(held ? "with a reference held throughout" : "with the object coming and going");
        void* kept = held ? Create() : nullptr;
        const int before = Destructions();
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < kRounds; ++i) {
                    void* face = nullptr;
                    const GUID& id = (i + t) % 2 ? ids::kAntivirusScanFaceId : ids::kPrimaryFaceId;
                    if (library.Create(id, &face) != 0 || face == nullptr) ++wrong;
                    void* unknown = reinterpret_cast<void*>(1);
                    if (library.Create(kUnknownId, &unknown) != 1168 || unknown != nullptr) ++wrong;
                    if (held && id == ids::kPrimaryFaceId && face != kept) ++wrong;
                    library.Destroy(face);
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(0, wrong.load());
        if (held) {
            EXPECT_EQ(before, Destructions()) << "destroyed while a reference was held";
            library.Destroy(kept);
            EXPECT_EQ(before + 1, Destructions());
        }
        // The count is back at zero: one more pair builds and destroys exactly one object.
        const int settled = Destructions();
        library.Destroy(Create());
        EXPECT_EQ(settled + 1, Destructions());
    }
}

} // namespace
