// Heap growth of the plug-in over many lifecycles and many interface calls: every heap of the
// process is walked before and after, and the bytes in blocks in use are compared.
#include "bench/common/Harness.h"
#include "bench/common/LogLibrary.h"
#include "bench/common/PluginHost.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace bench;
using qv::kxsdk::AntivirusScan::HashChainSettings;
using qv::kxsdk::AntivirusScan::IAntivirusScan;
using qv::kxsdk::AntivirusScan::ScanMode;
using qv::kxsdk::AntivirusScan::ScanType;

struct ScanSink : IAntivirusScan::IScanEvents {
    int OnScanModesChanged(ScanMode, ScanMode) override { return 0; }
};
struct SettingsSink : IAntivirusScan::ISettingsEvents {
    int OnBackupStatusChanged(bool) override { return 0; }
    int OnFeatureStatusChanged(const qv::StringW&, bool) override { return 0; }
    int OnHashChainSettingsChanged(const HashChainSettings&) override { return 0; }
    int OnSignatureInfoReportingChanged(bool) override { return 0; }
};

// One host with a fresh set of sibling plug-ins, and one create, Init, UnInit, destroy cycle.
bool Cycle(PluginModule& module, const Installation& installation) {
    host::HostEnvironment env;
    installation.Configure(env);
    void* primary = module.Create();
    if (!primary) return false;
    const bool ok = CallSlot<DWORD>(primary, kInit, static_cast<IQvHost*>(&env.host)) == 0;
    CallSlot<DWORD>(primary, kUnInit);
    module.Destroy(primary);
    return ok;
}

// A started object taking `calls` calls of the IAntivirusScan face, a dozen kinds in turn.
bool MixedCalls(PluginModule& module, const Installation& installation, int calls) {
    host::HostEnvironment env;
    installation.Configure(env);
    void* primary = module.Create();
    void* scan = module.ScanFace();
    if (!primary || !scan) return false;
    bool ok = CallSlot<DWORD>(primary, kInit, static_cast<IQvHost*>(&env.host)) == 0 &&
              CallSlot<DWORD>(primary, kStart) == 0 && CallSlot<DWORD>(primary, kDelayedStart) == 0;
    std::vector<qv::StringW> features;
    for (int i = 0; i < 32; ++i) features.emplace_back((L"Feature." + std::to_wstring(i)).c_str());
    ScanSink scanSink;
    SettingsSink settingsSink;
    CallSlot<DWORD>(scan, 2, static_cast<IAntivirusScan::ISettingsEvents*>(&settingsSink));
    ScanType type;
    ScanMode p, f;
    bool flag;
    HashChainSettings hashChain;
    qv::StringW version;
    uint64_t count;
    for (int i = 0; ok && i < calls;) {
        const qv::StringW* feature = &features[static_cast<size_t>(i) % features.size()];
        switch (i % 12) {
        case 0:
            CallSlot<DWORD>(scan, kGetScanType, &type);
            break;
        case 1:
            CallSlot<DWORD>(scan, kGetScanModes, &p, &f);
            break;
        case 2:
            CallSlot<DWORD>(scan, kIsBackupEnabled, &flag);
            break;
        case 3:
            CallSlot<DWORD>(scan, kGetFeatureStatus, feature, &flag);
            break;
        case 4:
            CallSlot<DWORD>(scan, kGetHashChainSettings, &hashChain);
            break;
        case 5:
            CallSlot<DWORD>(scan, kIsSignatureInfoReported, &flag);
            break;
        case 6:
            CallSlot<DWORD>(scan, kGetEnginesVersion, &version);
            break;
        case 7:
            CallSlot<DWORD>(scan, kGetSignaturesCount, &count);
            break;
        case 8:
            CallSlot<DWORD>(scan, 1, static_cast<IAntivirusScan::IScanEvents*>(&scanSink));
            break;
        case 9:
            CallSlot<DWORD>(scan, 4, static_cast<IAntivirusScan::IScanEvents*>(&scanSink));
            break;
        case 10:
            CallSlot<DWORD>(scan, kEnableBackup, (i / 12) % 2 == 0);
            break;
        default:
            CallSlot<DWORD>(scan, kSetFeatureStatus, feature, (i / 12) % 3 == 0);
            break;
        }
        ++i;
    }
    CallSlot<DWORD>(scan, 5, static_cast<IAntivirusScan::ISettingsEvents*>(&settingsSink));
    CallSlot<DWORD>(primary, kStop);
    CallSlot<DWORD>(primary, kUnInit);
    module.Destroy(primary);
    return ok;
}

} // namespace

// Optional arguments, for looking into a growth: the number of cycles and of calls.
int main(int argc, char** argv) {
    Progress("memory: 10,000 lifecycles and 1,000,000 interface calls");
    LogLibrary log;
    // log.dll keeps nothing, so that only the plug-in's own blocks can grow.
    log.Keep(LogKeeps::Nothing);
    PluginModule module;
    Row row;
    row.what = "Memory: 10,000 create, Init, UnInit, destroy cycles, then 1,000,000 mixed IAntivirusScan calls";
    if (!module.Loaded()) {
        row.verdict = Verdict::Miss;
        row.note = "AntivirusScan.AL not found beside the program";
        Emit(row);
        return 1;
    }
    Installation installation(L"memory");
    const int kCycles = argc > 1 ? std::atoi(argv[1]) : 10000;
    const int kCalls = argc > 2 ? std::atoi(argv[2]) : 1000000;
    constexpr int kWarmUp = 20;

    // First uses of the C runtime, Wine, the host and this program's own clock allocate once and
    // keep what they got.
    Now();
    bool ok = true;
    for (int i = 0; i < kWarmUp; ++i) ok = Cycle(module, installation) && ok;
    ok = MixedCalls(module, installation, 12000) && ok;

    if (const char* probe = std::getenv("AVBENCH_MEMORY_PROBE")) {
        for (int i = 0; i < 6; ++i) {
            const HeapUse a = HeapInUse();
            MixedCalls(module, installation, std::atoi(probe));
            const HeapUse b = HeapInUse();
            std::fprintf(stderr, "probe: %+lld bytes %+lld blocks\n", static_cast<long long>(b.bytes - a.bytes),
                         static_cast<long long>(b.blocks - a.blocks));
        }
    }
    const HeapUse before = HeapInUse();
    const double start = Now();
    for (int i = 0; i < kCycles; ++i) ok = Cycle(module, installation) && ok;
    const HeapUse afterCycles = HeapInUse();
    ok = MixedCalls(module, installation, kCalls) && ok;
    const HeapUse after = HeapInUse();
    const double seconds = Now() - start;

    const long long growth = static_cast<long long>(after.bytes) - static_cast<long long>(before.bytes);
    const long long cycleGrowth = static_cast<long long>(afterCycles.bytes) - static_cast<long long>(before.bytes);
    row.measurement = Printf("%+lld bytes (%+lld blocks)", growth,
                             static_cast<long long>(after.blocks) - static_cast<long long>(before.blocks));
    row.baseline = Printf("%llu bytes in use before (%llu blocks)", static_cast<unsigned long long>(before.bytes),
                          static_cast<unsigned long long>(before.blocks));
    row.ratio = Printf("after the cycles %+lld bytes", cycleGrowth);
    row.goal = "growth <= 1 KiB";
    row.verdict = ok && growth <= 1024 ? Verdict::Pass : Verdict::Miss;
    row.note = Printf("Every process heap walked with HeapWalk; bytes in busy blocks. Each cycle runs in a host of its "
                      "own (host::HostEnvironment) that is gone before the heaps are walked; %d warm-up cycles and "
                      "12,000 calls first. The calls: queries, feature status (32 names), sink registration, "
                      "EnableBackup and SetFeatureStatus in turn; log.dll keeps nothing. %.1f s in all.%s",
                      kWarmUp, seconds, ok ? "" : " A lifecycle call FAILED.");
    Emit(row);
    return 0;
}
