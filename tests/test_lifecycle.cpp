// Init, Start, Stop and UnInit against the host's sibling plug-ins: error codes, messages with
// their severities, and every plug-in handed back.
#include "tests/common/PluginHarness.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;
namespace ids = qv::kxsdk::ids;

const wchar_t* const kAllPlugins[] = {ids::kServConfigName, ids::kSettingsName, ids::kUpdateName,
                                      ids::kRemoteScanName, ids::kCtcName,      ids::kScanSpName};

bool LineWith(const std::wstring& text, uint32_t severity) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == text && line.severity == severity) return true;
    }
    return false;
}

class Lifecycle : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        ASSERT_NE(nullptr, plugin.scan);
        avhost::ClearCapturedLines();
    }
    void ExpectNothingHeld() {
        for (const wchar_t* name : kAllPlugins) {
            EXPECT_EQ(0, plugin.env.manager.Outstanding(name)) << "still held: " << std::string(name, name + wcslen(name));
        }
        EXPECT_TRUE(plugin.env.manager.Balanced());
    }
    PluginUnderTest plugin;
};

TEST_F(Lifecycle, NullHostIsRejectedWithoutTouchingAnything) {
    EXPECT_EQ(87u, plugin.InitWith(nullptr));
    EXPECT_TRUE(LineWith(L"invalid parameter", 4));
    EXPECT_EQ(0, plugin.env.manager.CountsOf(ids::kServConfigName).attempts);
}

TEST_F(Lifecycle, TracesInitWithEntryAndExitLines) {
    ASSERT_EQ(0u, plugin.Init());
    bool entry = false, exit = false;
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == L"-> AntivirusScanAL::Init()" && line.nesting == 1 && line.severity == 32) entry = true;
        if (line.text.rfind(L"<- AntivirusScanAL::Init() [", 0) == 0 && line.nesting == 0xFFFF &&
            line.severity == 32 && line.function == L"AntivirusScanAL::Init")
            exit = true;
    }
    EXPECT_TRUE(entry);
    EXPECT_TRUE(exit);
}

struct RequiredCase {
    const wchar_t* name;
    const wchar_t* message;
};

TEST_F(Lifecycle, EachRequiredPluginMissingFailsAndReleasesEverything) {
    const RequiredCase cases[] = {{ids::kServConfigName, L"Dependency not found : ServConfig."},
                                  {ids::kUpdateName, L"Dependency not found : Update."},
                                  {ids::kSettingsName, L"Dependency not found : Settings."}};
    for (const RequiredCase& c : cases) {
        plugin.env.OfferAll();
        plugin.env.manager.ResetCounts();
        avhost::ClearCapturedLines();
        plugin.env.manager.SetMissing(c.name);
        EXPECT_EQ(5002u, plugin.Init());
        EXPECT_TRUE(LineWith(c.message, 4));
        ExpectNothingHeld();
        // Refusing with a code behaves as missing, and the code is logged.
        plugin.env.OfferAll();
        plugin.env.manager.ResetCounts();
        plugin.env.manager.SetRefusing(c.name, 31);
        EXPECT_EQ(5002u, plugin.Init());
        EXPECT_TRUE(avhost::Contains(L"Error 31 getting plugin \"" + std::wstring(c.name) + L"\""));
        ExpectNothingHeld();
    }
}

TEST_F(Lifecycle, OptionalPluginsMissingAreTolerated) {
    plugin.env.manager.SetMissing(ids::kCtcName);
    plugin.env.manager.SetMissing(ids::kRemoteScanName);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Dependency not found : CTC.", 32));
    EXPECT_TRUE(LineWith(L"Dependency not found : RemoteScan.", 8));
    EXPECT_EQ(0u, plugin.UnInit());
    ExpectNothingHeld();
}

TEST_F(Lifecycle, MissingScanSpStartsRecoveryButInitSucceeds) {
    plugin.env.manager.SetMissing(ids::kScanSpName);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Dependency not found : ScanSp.", 8));
    qv::kxsdk::AntivirusScan::ScanMode p, f;
    EXPECT_EQ(qv::kxsdk::AntivirusScan::kRecoveryInProgress, plugin.Scan()->GetScanModes(&p, &f));
}

TEST_F(Lifecycle, RemoteScanTypeNeedsTheRemoteScanPlugin) {
    plugin.env.servConfig.SetText(51, L"BASE", L"remote");
    plugin.env.remoteScan.SetStatus(true);
    plugin.env.manager.SetMissing(ids::kRemoteScanName);
    EXPECT_EQ(5002u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Dependency not found : RemoteScan.", 8));
    EXPECT_TRUE(LineWith(L"Cannot continue without RemoteScanAL plugin!", 4));
    ExpectNothingHeld();

    for (const wchar_t* type : {L"full", L"LIGHT"}) {
        plugin.env.servConfig.SetText(51, L"BASE", type);
        EXPECT_EQ(0u, plugin.Init());
        EXPECT_EQ(0u, plugin.UnInit());
    }
    ExpectNothingHeld();
}

TEST_F(Lifecycle, InvalidScanTypeFailsWithInvalidData) {
    plugin.env.servConfig.SetText(51, L"BASE", L" light");
    EXPECT_EQ(13u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Invalid scan type [config =  light]", 4));
    EXPECT_TRUE(LineWith(L"Invalid scan type.", 4));
    ExpectNothingHeld();
}

TEST_F(Lifecycle, FailedScanModeInitialisationFailsWithInternalError) {
    // A remote-only installation whose remote service is off cannot compute its modes.
    plugin.env.servConfig.SetText(51, L"BASE", L"remote");
    plugin.env.remoteScan.SetStatus(false);
    EXPECT_EQ(1359u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Invalid remote scan settings.", 4));
    EXPECT_TRUE(LineWith(L"Cannot compute scan mode", 4));
    EXPECT_TRUE(LineWith(L"InitScanMode failed!", 4));
    ExpectNothingHeld();
}

TEST_F(Lifecycle, StartBeforeInitRegistersNothing) {
    EXPECT_EQ(5002u, plugin.Start());
    EXPECT_TRUE(LineWith(L"Dependency not found", 4));
    EXPECT_TRUE(plugin.env.update.Registrations().empty());
    EXPECT_TRUE(plugin.env.remoteScan.Registrations().empty());
    EXPECT_TRUE(plugin.env.update.Unregistrations().empty());
}

TEST_F(Lifecycle, StartRegistersBothFacesAndStopUnregistersThem) {
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());
    ASSERT_EQ(1u, plugin.env.update.Registrations().size());
    ASSERT_EQ(1u, plugin.env.remoteScan.Registrations().size());
    // The registered faces are the object's event faces, not its primary pointer.
    EXPECT_NE(plugin.primary, static_cast<void*>(plugin.env.update.RegisteredSinks().at(0)));
    EXPECT_EQ(0u, plugin.Stop());
    EXPECT_TRUE(plugin.env.update.RegisteredSinks().empty());
    EXPECT_TRUE(plugin.env.remoteScan.RegisteredSinks().empty());
    EXPECT_EQ(0u, plugin.UnInit());
    ExpectNothingHeld();
    // UnInit is idempotent.
    EXPECT_EQ(0u, plugin.UnInit());
    ExpectNothingHeld();
}

TEST_F(Lifecycle, RefusedRegistrationUnregistersBothFaces) {
    ASSERT_EQ(0u, plugin.Init());
    plugin.env.update.RefuseRegistration(1234);
    EXPECT_EQ(15025u, plugin.Start());
    EXPECT_TRUE(LineWith(L"Cannot register update events [error = 1234]", 4));
    EXPECT_EQ(1u, plugin.env.update.Unregistrations().size());
    EXPECT_EQ(1u, plugin.env.remoteScan.Unregistrations().size());

    plugin.env.update.RefuseRegistration(0);
    plugin.env.remoteScan.RefuseRegistration(77);
    EXPECT_EQ(15025u, plugin.Start());
    EXPECT_TRUE(LineWith(L"Cannot register remote scan events [error = 77]", 4));
    EXPECT_TRUE(plugin.env.update.RegisteredSinks().empty());
}

TEST_F(Lifecycle, RemoteTypeLosingItsPluginCannotStart) {
    plugin.env.servConfig.SetText(51, L"BASE", L"remote");
    plugin.env.remoteScan.SetStatus(true);
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());
    ASSERT_EQ(0u, plugin.Stop());
    // Only possible if the holder was emptied; simulated by a second Init without the plug-in.
    plugin.env.manager.SetMissing(ids::kRemoteScanName);
    EXPECT_EQ(5002u, plugin.Init());
    EXPECT_EQ(5002u, plugin.Start());
}

TEST_F(Lifecycle, RefusingManagerThatStillWritesAnInterfaceIsKept) {
    plugin.env.manager.SetRefusing(ids::kCtcName, 5, true);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Error 5 getting plugin \"ctc\"", 8));
    EXPECT_FALSE(avhost::Contains(L"Dependency not found : CTC."));
    EXPECT_EQ(0u, plugin.UnInit());
    // Held without a serving manager: nothing to give back by name.
    EXPECT_EQ(0, plugin.env.manager.CountsOf(ids::kCtcName).releases);
}

TEST_F(Lifecycle, NullComponentManagerIsReported) {
    host::HostObject noManager(nullptr);
    EXPECT_EQ(5002u, plugin.InitWith(&noManager));
    EXPECT_TRUE(LineWith(L"Null component manager", 4));
}

} // namespace
