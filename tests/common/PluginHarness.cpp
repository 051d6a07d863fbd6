#include "tests/common/PluginHarness.h"

namespace testing_support {

PluginUnderTest::PluginUnderTest() : PluginUnderTest(ExeFolder() + L"\\AntivirusScan.AL") {}

PluginUnderTest::PluginUnderTest(const std::wstring& libraryPath) : library(libraryPath) {
    if (!library.Loaded()) return;
    library.Create(qv::kxsdk::ids::kPrimaryFaceId, &primary);
    void* face = nullptr;
    library.Create(qv::kxsdk::ids::kAntivirusScanFaceId, &face);
    scan = face;
    // The second create counted a reference of its own; one destroy at the end is enough.
    if (face) library.Destroy(face);
}

PluginUnderTest::~PluginUnderTest() {
    if (!primary) return;
    if (!stopped) StopAll();
    library.Destroy(primary);
}

bool PluginUnderTest::StartAll() {
    stopped = false;
    return Init() == 0 && Start() == 0 && DelayedStart() == 0;
}

void PluginUnderTest::StopAll() {
    Stop();
    UnInit();
    stopped = true;
}

} // namespace testing_support
