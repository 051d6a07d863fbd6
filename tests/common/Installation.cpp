#include "tests/common/Installation.h"

#include "tests/common/ScanSlots.h"

namespace testing_support {

using slots::WriteBytes;

Installation::Installation(const wchar_t* tag)
    : root(TempFolder(tag)), coreTemp(root + L"\\temp\\scansp"), engines(root + L"\\engines"),
      common(root + L"\\common"), settingsFile(root + L"\\settings.json") {
    for (const std::wstring& dir : {root + L"\\temp", coreTemp, engines, engines + L"\\Plugins", common,
                                    common + L"\\installer", root + L"\\sigs", root + L"\\sigs\\v1"})
        CreateDirectoryW(dir.c_str(), nullptr);
    WriteBytes(root + L"\\temp\\old.tmp", "stale");
    WriteBytes(common + L"\\installer\\wslib.db", "cache");
    WriteBytes(common + L"\\installer\\wslib.m", "cache");
    WriteBytes(engines + L"\\Plugins\\update.txt", "kit\nsignatures 1000\nx\nversion 9.9.9\n");
}

Installation::~Installation() { slots::RemoveFolder(root); }

void Installation::Configure(host::HostEnvironment& env, const wchar_t* scanType) const {
    env.servConfig.SetText(51, L"BASE", scanType);
    env.servConfig.SetText(17, L"scansp", coreTemp.c_str());
    env.servConfig.SetText(2, L"scansp", engines.c_str());
    env.servConfig.SetText(0, L"signaturesPatterns", (root + L"\\sigs\\*").c_str());
    env.servConfig.SetText(0, L"common", common.c_str());
    env.remoteScan.SetStatus(true);
    // A remote-only installation has no local engines to fall back on.
    env.remoteScan.SetFallbackMode(std::wstring(scanType) == L"remote" ? 0 : 2);
    env.update.SetStatistic(L"Antivirus", L"1.2.3", 42);
}

} // namespace testing_support
