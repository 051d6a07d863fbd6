// Init, Start, Stop and UnInit against the host's sibling plug-ins: error codes, messages with
// their severities, and every plug-in handed back.
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

class Lifecycle : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.scan);
        avhost::ClearCapturedLines();
    }
    void ExpectNothingHeld() { EXPECT_EQ("", StillHeld(plugin.env)); }
    PluginUnderTest plugin;
};

TEST_F(Lifecycle, NullHostAndNullManager) {
    EXPECT_EQ(87u, plugin.InitWith(nullptr));
    EXPECT_TRUE(LineWith(L"invalid parameter", 4));
    EXPECT_EQ(0, plugin.env.manager.CountsOf(ids::kServConfigName).attempts);
    host::HostObject noManager(nullptr);
    EXPECT_EQ(5002u, plugin.InitWith(&noManager));
    EXPECT_TRUE(LineWith(L"Null component manager", 4));
}

TEST_F(Lifecycle, InitTraceLines) {
    ASSERT_EQ(0u, plugin.Init());
    bool entry = false, exit = false;
    for (const auto& line : avhost::CapturedLines()) {
        entry |= line.text == L"-> AntivirusScanAL::Init()" && line.nesting == 1 && line.severity == 32;
        exit |= line.text.rfind(L"<- AntivirusScanAL::Init() [", 0) == 0 && line.nesting == 0xFFFF &&
                line.severity == 32 && line.function == L"AntivirusScanAL::Init";
    }
    EXPECT_TRUE(entry);
    EXPECT_TRUE(exit);
    EXPECT_EQ(0u, plugin.UnInit());
    ExpectNothingHeld();
}

TEST_F(Lifecycle, RemoteScanTypeNeedsTheRemoteScanPlugin) {
    plugin.env.servConfig.SetText(51, L"BASE", L"remote");
    plugin.env.remoteScan.SetStatus(true);
    plugin.env.manager.SetMissing(ids::kRemoteScanName);
    EXPECT_EQ(5002u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Dependency not found : RemoteScan.", 8));
    EXPECT_TRUE(LineWith(L"Cannot continue without RemoteScanAL plugin!", 4));
    ExpectNothingHeld();
    EXPECT_EQ(5002u, plugin.Start());
    for (const wchar_t* type : {L"full", L"LIGHT"}) {
        plugin.env.servConfig.SetText(51, L"BASE", type);
        EXPECT_EQ(0u, plugin.Init());
        EXPECT_EQ(0u, plugin.UnInit());
    }
    ExpectNothingHeld();
}

// A remote-only installation whose remote service is off cannot compute its modes.
TEST_F(Lifecycle, FailedScanModeInit) {
    plugin.env.servConfig.SetText(51, L"BASE", L"remote");
    plugin.env.remoteScan.SetStatus(false);
    EXPECT_EQ(1359u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Invalid remote scan settings.", 4));
    EXPECT_TRUE(LineWith(L"Cannot compute scan mode", 4));
    EXPECT_TRUE(LineWith(L"InitScanMode failed!", 4));
    ExpectNothingHeld();
}

TEST_F(Lifecycle, StartStopAndRegistrations) {
    EXPECT_EQ(5002u, plugin.Start()) << "Start before Init";
    EXPECT_TRUE(LineWith(L"Dependency not found", 4));
    EXPECT_TRUE(plugin.env.update.Registrations().empty());
    EXPECT_TRUE(plugin.env.remoteScan.Registrations().empty());

    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());
    ASSERT_EQ(1u, plugin.env.update.Registrations().size());
    ASSERT_EQ(1u, plugin.env.remoteScan.Registrations().size());
    EXPECT_NE(plugin.primary, static_cast<void*>(plugin.env.update.RegisteredSinks().at(0)));
    EXPECT_EQ(0u, plugin.Stop());
    EXPECT_TRUE(plugin.env.update.RegisteredSinks().empty());
    EXPECT_TRUE(plugin.env.remoteScan.RegisteredSinks().empty());

    plugin.env.update.RefuseRegistration(1234);
    EXPECT_EQ(15025u, plugin.Start());
    EXPECT_TRUE(LineWith(L"Cannot register update events [error = 1234]", 4));
    EXPECT_TRUE(plugin.env.update.RegisteredSinks().empty());
    EXPECT_TRUE(plugin.env.remoteScan.RegisteredSinks().empty());
    plugin.env.update.RefuseRegistration(0);
    plugin.env.remoteScan.RefuseRegistration(77);
    EXPECT_EQ(15025u, plugin.Start());
    EXPECT_TRUE(LineWith(L"Cannot register remote scan events [error = 77]", 4));
    EXPECT_TRUE(plugin.env.update.RegisteredSinks().empty());

    EXPECT_EQ(0u, plugin.UnInit());
    EXPECT_EQ(0u, plugin.UnInit());
    ExpectNothingHeld();
}

} // namespace
