// Failure at every point, as SQLite tests itself: for each operation the plug-in's N-th allocation
// fails, for N = 1, 2, ... until the operation no longer reaches it; then the same for its file
// calls, each failing with access denied, a sharing violation and a full disk. After every point
// a follow-up round on the same object checks what the failure left behind. Each sweep runs in a
// child process; a crash or a hang ends the child, is reported with its point, and the child is
// started again after it.
#include "tests/common/ChildProcess.h"
#include "tests/common/EventRecorder.h"
#include "tests/common/ImportFaults.h"
#include "tests/common/Installation.h"
#include "tests/common/LogAndFileChecks.h"
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

const DWORD kFileErrors[] = {ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_DISK_FULL};
constexpr DWORD kOutOfMemory = ERROR_NOT_ENOUGH_MEMORY;

// ---- In the child: the report file the parent reads. Written with stack buffers only, so that
// reporting allocates nothing between two heap walks.
HANDLE g_report = INVALID_HANDLE_VALUE;
DWORD g_answer; // of the operation at the last point
volatile LONG g_failures = 0;
char g_point[160]; // the point being run, for failure lines

void Report(const char* format, ...) {
    char line[1024];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    if (n < 0 || n > static_cast<int>(sizeof line) - 2) n = static_cast<int>(sizeof line) - 2;
    line[n++] = '\n';
    DWORD written = 0;
    WriteFile(g_report, line, static_cast<DWORD>(n), &written, nullptr);
}

#define CHECK(condition, ...)                                                                                          \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            char what_[512];                                                                                           \
            snprintf(what_, sizeof what_, __VA_ARGS__);                                                                \
            Report("F %s %s (%s)", g_point, what_, #condition);                                                        \
            InterlockedIncrement(&g_failures);                                                                         \
        }                                                                                                              \
    } while (0)

// ---- The installation every point runs in: one folder per child, put back before each point.
enum class Mode { Normal, Recovery, RemoteOnly };

struct Site : Installation {
    Site() : Installation(L"sweep") {}
    // Every file a point may delete is there again, every file it may create is gone.
    void Reset() const {
        for (const wchar_t* name : {L"\\qvcore.dll", L"\\scanclient.dll", L"\\smartdbv2.dat", L"\\Plugins\\lhdb.cvd",
                                    L"\\Plugins\\nnml.cvd", L"\\Plugins\\xgdb.cvd"})
            DeleteFileW((engines + name).c_str());
        for (const wchar_t* name : {L"\\Plugins\\dalvik.cvd", L"\\Plugins\\sdx.cvd"})
            WriteBytes(engines + name, "engine");
        WriteBytes(common + L"\\installer\\wslib.db", "cache");
        WriteBytes(common + L"\\installer\\wslib.m", "cache");
        WriteBytes(root + L"\\temp\\old.tmp", "stale");
        CreateDirectoryW((root + L"\\temp\\stale").c_str(), nullptr);
        WriteBytes(root + L"\\temp\\stale\\inner.tmp", "stale");
    }
};

HMODULE g_module;
CreateFn g_create;
DestroyFn g_destroy;
const wchar_t* const kName = ids::kAntivirusScanObjectName;

// One host with one plug-in object, settings in memory.
struct Rig {
    Rig(Mode mode, const Site& site) : mode(mode), site(site) {
        site.Configure(env, mode == Mode::RemoteOnly ? L"remote" : L"full");
        if (mode == Mode::Recovery) env.manager.SetMissing(ids::kScanSpName);
    }
    // Both faces, one reference counted, as the host holds them.
    DWORD Create() {
        DWORD result = g_create(kName, ids::kPrimaryFaceId, &primary);
        if (result != 0) return result;
        void* face = nullptr;
        result = g_create(kName, ids::kAntivirusScanFaceId, &face);
        if (face) g_destroy(kName, face);
        scan = face;
        return result;
    }
    DWORD Destroy() {
        g_destroy(kName, primary);
        primary = scan = nullptr;
        return 0;
    }
    DWORD Init() {
        const DWORD result = CallSlot<DWORD>(primary, kInit, static_cast<IQvHost*>(&env.host));
        initialised = result == 0;
        return result;
    }
    DWORD UnInit() {
        initialised = false;
        return CallSlot<DWORD>(primary, kUnInit);
    }
    DWORD Call(int slot) { return CallSlot<DWORD>(primary, slot); }

    Mode mode;
    const Site& site;
    host::HostEnvironment env;
    void* primary = nullptr;
    void* scan = nullptr;
    bool initialised = false;
};

// What runs before an operation, in this order.
enum class Stage { None, Created, Initialised, Started, Running, Stopped, UnInitialised };

struct Operation {
    const char* name;
    Mode mode;
    Stage before;
    std::function<DWORD(Rig&)> run;
    std::vector<DWORD> codes; // the documented answers
};

// The first answer that is not 0, or 0.
DWORD FirstFailure(std::initializer_list<DWORD> answers) {
    for (DWORD a : answers)
        if (a != 0) return a;
    return 0;
}

std::vector<Operation> Operations() {
    const std::vector<DWORD> slot = {0, kOutOfMemory};
    const std::vector<DWORD> init = {0, kOutOfMemory, 13, 1359, 5002};
    const std::vector<DWORD> save = {0, kOutOfMemory, 1013};
    auto install = [](Rig& r) {
        return r.env.update.DeliverComponentInstalled(L"Updater", L"Antivirus", r.site.engines.c_str());
    };
    return {
        {"QvCreateObject", Mode::Normal, Stage::None, [](Rig& r) { return r.Create(); }, {0, kOutOfMemory}},
        {"Init", Mode::Normal, Stage::Created, [](Rig& r) { return r.Init(); }, init},
        {"Init (recovery)", Mode::Recovery, Stage::Created, [](Rig& r) { return r.Init(); }, init},
        {"Init (remote only)", Mode::RemoteOnly, Stage::Created, [](Rig& r) { return r.Init(); }, init},
        {"Start", Mode::Normal, Stage::Initialised, [](Rig& r) { return r.Call(kStart); }, {0, kOutOfMemory, 15025}},
        {"DelayedStart", Mode::Normal, Stage::Started, [](Rig& r) { return r.Call(kDelayedStart); }, {0}},
        {"DelayedStart (recovery)", Mode::Recovery, Stage::Started, [](Rig& r) { return r.Call(kDelayedStart); }, {0}},
        {"OnComponentInstalled", Mode::Normal, Stage::Running, install, slot},
        {"OnComponentInstalled (recovery, engines still missing)", Mode::Recovery, Stage::Running, install, slot},
        {"OnComponentInstalled (recovery, engines repaired)", Mode::Recovery, Stage::Running,
         [install](Rig& r) {
             r.env.manager.Restore(ids::kScanSpName);
             return install(r);
         },
         slot},
        {"EnableBackup",
         Mode::Normal,
         Stage::Running,
         [](Rig& r) { return EnableBackup(r.scan, true); },
         {0, kOutOfMemory, 1013, 1359}},
        {"ReportHashChain", Mode::Normal, Stage::Running, [](Rig& r) { return ReportHashChain(r.scan, true); }, save},
        {"ReportSignatureInfo", Mode::Normal, Stage::Running, [](Rig& r) { return ReportSignatureInfo(r.scan, true); },
         save},
        {"SetFeatureStatus", Mode::Normal, Stage::Running,
         [](Rig& r) { return SetFeatureStatus(r.scan, qv::StringW(L"Quarantine"), false); }, slot},
        {"GetFeatureStatus", Mode::Normal, Stage::Running,
         [](Rig& r) {
             bool locked = false;
             return GetFeatureStatus(r.scan, qv::StringW(L"Firewall"), &locked);
         },
         slot},
        {"getters", Mode::Normal, Stage::Running,
         [](Rig& r) {
             ScanType type;
             ScanMode primary, fallback;
             bool on;
             HashChainSettings hashChain;
             uint64_t count;
             // Sized by the caller: the plug-in copies into it without allocating a header that
             // this program would free.
             qv::StringW version(L"0000000000000000");
             return FirstFailure({GetScanType(r.scan, &type), GetScanModes(r.scan, &primary, &fallback),
                                  IsBackupEnabled(r.scan, &on), GetEnginesVersion(r.scan, &version),
                                  GetSignaturesCount(r.scan, &count), GetHashChainSettings(r.scan, &hashChain),
                                  IsSignatureInfoReported(r.scan, &on)});
         },
         slot},
        {"sinks", Mode::Normal, Stage::Running,
         [](Rig& r) {
             EventRecorder sink;
             const DWORD added = FirstFailure(
                 {RegisterSettings(r.scan, &sink), RegisterEngines(r.scan, &sink), RegisterScan(r.scan, &sink)});
             // A sink whose registration failed is not there to remove (1627).
             for (DWORD removed :
                  {UnregisterSettings(r.scan, &sink), UnregisterEngines(r.scan, &sink), UnregisterScan(r.scan, &sink)})
                 CHECK(removed == 0 || (added != 0 && removed == 1627), "unregistering answered %lu", removed);
             return added;
         },
         slot},
        {"OnStatusChanged", Mode::Normal, Stage::Running,
         [](Rig& r) { return r.env.remoteScan.FireStatusChanged(false); }, slot},
        {"OnSettingsChanged", Mode::Normal, Stage::Running,
         [](Rig& r) { return r.env.remoteScan.FireSettingsChanged(); }, slot},
        {"OnScanModeChanged", Mode::Normal, Stage::Running,
         [](Rig& r) {
             r.env.remoteScan.SetFallbackMode(1);
             return r.env.remoteScan.FireScanModeChanged();
         },
         slot},
        {"Stop", Mode::Normal, Stage::Running, [](Rig& r) { return r.Call(kStop); }, {0}},
        {"UnInit", Mode::Normal, Stage::Stopped, [](Rig& r) { return r.UnInit(); }, {0}},
        {"QvDestroyObject", Mode::Normal, Stage::UnInitialised, [](Rig& r) { return r.Destroy(); }, {0}},
    };
}

bool RunUpTo(Rig& rig, Stage stage) {
    const std::pair<Stage, std::function<DWORD()>> steps[] = {
        {Stage::Created, [&] { return rig.Create(); }},     {Stage::Initialised, [&] { return rig.Init(); }},
        {Stage::Started, [&] { return rig.Call(kStart); }}, {Stage::Running, [&] { return rig.Call(kDelayedStart); }},
        {Stage::Stopped, [&] { return rig.Call(kStop); }},  {Stage::UnInitialised, [&] { return rig.UnInit(); }},
    };
    for (const auto& step : steps) {
        if (static_cast<int>(step.first) > static_cast<int>(stage)) break;
        if (step.second() != 0) return false;
    }
    return true;
}

// The switches as answered equal the store, and the provider runs with the backup value answered.
void CheckSwitchesAgree(Rig& rig) {
    const std::string disagree =
        SwitchesDisagree(rig.scan, rig.env.settings.Section(L"/AntivirusScan"), rig.env.scanSp, true);
    CHECK(disagree.empty(), "%s", disagree.c_str());
}

// Nothing was left locked.
void CheckNothingLocked(Rig& rig) {
    std::string wrong;
    if (!AnswersFromAnotherThread(rig.scan, wrong)) {
        Report("H %s a call from another thread did not complete", g_point);
        TerminateProcess(GetCurrentProcess(), 4);
    }
    CHECK(wrong.empty(), "%s", wrong.c_str());
}

// After the failed operation: agreement, no lock held, sinks still register and hear a change,
// every sibling handed back exactly once, and the object gone after its last destroy.
void FollowUp(Rig& rig) {
    if (!rig.primary) CHECK(rig.Create() == 0, "the object cannot be created again");
    if (!rig.primary) return;
    CheckSwitchesAgree(rig);
    CheckNothingLocked(rig);
    EventRecorder sink;
    CHECK(RegisterSettings(rig.scan, &sink) == 0, "a settings sink cannot register");
    if (rig.initialised && rig.mode != Mode::Recovery) {
        const bool was = BackupOf(rig.scan);
        CHECK(EnableBackup(rig.scan, !was) == 0, "the backup switch cannot change");
        const std::vector<std::string> heard = sink.Take();
        CHECK(heard.size() == 1 && heard[0] == (was ? "backup=0" : "backup=1"), "the sink did not hear the change");
        CheckSwitchesAgree(rig);
    }
    CHECK(UnregisterSettings(rig.scan, &sink) == 0, "a settings sink cannot be removed");
    CHECK(rig.Call(kStop) == 0, "Stop failed");
    CHECK(rig.UnInit() == 0, "UnInit failed");
    const std::string held = StillHeld(rig.env);
    CHECK(held.empty(), "%s", held.c_str());
    const int deinits = avhost::Counters().deinitCalls;
    rig.Destroy();
    CHECK(avhost::Counters().deinitCalls == deinits + 1, "the object outlived its last destroy");
}

// Where in the plug-in the failed call was made: the offsets in the DLL of the first return
// addresses inside it, for addr2line.
void NoteWhere() {
    if (strstr(g_point, " at ")) return;
    void* frames[12];
    const int n = ImportFaults::FailedStack(frames, 12);
    const auto base = reinterpret_cast<uintptr_t>(g_module);
    int shown = 0;
    for (int i = 0; i < n && shown < 4; ++i) {
        const auto at = reinterpret_cast<uintptr_t>(frames[i]);
        if (at < base || at - base > 0x1000000) continue;
        const size_t used = strlen(g_point);
        snprintf(g_point + used, sizeof g_point - used, "%s+0x%llx", shown++ ? "," : " at ",
                 static_cast<unsigned long long>(at - base));
    }
}

const wchar_t* const kRecoverySteps[] = {
    L"-> AntivirusScanAL::SendEnginesRecoveryStartedEvent()", L"-> AntivirusScanAL::RecoveryStep_InvalidateCache()",
    L"-> AntivirusScanAL::RecoveryStep_GenDummyMissingFiles()", L"-> AntivirusScanAL::RecoveryStep_StartUpdateSig()"};

// One point: the operation with its failAt-th call failing (0: none). True when it was reached;
// `grew` tells whether the C runtime heap held more afterwards than before.
bool RunPoint(const Site& site, const Operation& op, ImportFaults::Kind kind, long failAt, DWORD error, bool& grew,
              char* growth, size_t room) {
    site.Reset();
    avhost::ClearCapturedLines();
    const HeapUse before = CrtHeapInUse();
    bool reached = false;
    {
        Rig rig(op.mode, site);
        if (!RunUpTo(rig, op.before)) {
            CHECK(false, "the steps before the operation failed");
            FollowUp(rig);
            return false;
        }
        ImportFaults::Arm(kind, failAt, error);
        const DWORD result = op.run(rig);
        g_answer = result;
        reached = ImportFaults::Disarm();
        if (reached) NoteWhere();
        bool documented = false;
        for (DWORD code : op.codes) documented = documented || code == result;
        CHECK(documented, "undocumented answer %lu", result);
        if (result == kOutOfMemory && op.before != Stage::None)
            CHECK(avhost::Contains(L"out of memory"), "no log line for the failed allocation");
        if (op.mode == Mode::Recovery && op.before == Stage::Started)
            for (const wchar_t* step : kRecoverySteps) CHECK(avhost::Contains(step), "%ls did not run", step);
        FollowUp(rig);
    }
    avhost::ClearCapturedLines();
    const HeapUse after = CrtHeapInUse();
    grew = !(after == before);
    snprintf(growth, room, "heap in use went from %zu bytes in %zu blocks to %zu in %zu", before.bytes, before.blocks,
             after.bytes, after.blocks);
    CHECK(ImportFaults::OutsideCount() == 0, "a file outside the sandbox was touched: %ls",
          ImportFaults::FirstOutside());
    return reached;
}

// A point whose heap grew runs once more: the process allocates some things once, on first use
// (a first exception through a frame, for one), and keeps them; a leak grows the heap again.
bool RunCheckedPoint(const Site& site, const Operation& op, ImportFaults::Kind kind, long failAt, DWORD error) {
    bool grew = false;
    char growth[160];
    const bool reached = RunPoint(site, op, kind, failAt, error, grew, growth, sizeof growth);
    if (grew) RunPoint(site, op, kind, failAt, error, grew, growth, sizeof growth);
    CHECK(!grew, "%s, again when run once more", growth);
    return reached;
}

// ---- The child: runs one sweep from a given point on, reporting each point before it runs.
volatile LONG g_progress = 0;

DWORD WINAPI Watchdog(void*) {
    for (LONG seen = -1;;) {
        Sleep(20000);
        const LONG now = g_progress;
        if (now == seen) {
            Report("H %s no progress for 20 s", g_point);
            TerminateProcess(GetCurrentProcess(), 4);
        }
        seen = now;
    }
}

LONG WINAPI EndOnCrash(EXCEPTION_POINTERS* info) {
    Report("C %s exception 0x%08lx", g_point, info->ExceptionRecord->ExceptionCode);
    TerminateProcess(GetCurrentProcess(), 5);
    return EXCEPTION_EXECUTE_HANDLER;
}

// Allocations made only the first time an operation runs in a process (a one-time
// initialisation on its path) are hidden from the sweep by its warm-up. They are found by running
// the operation twice in a fresh process and comparing the sizes allocated (what the first run
// has beyond the longest common sequence of both); each is then failed in a fresh process of its
// own. With n = 0 this reports the indices found ("K <n>"), else fails the n-th allocation.
void ColdStart(const Site& site, int o, long n) {
    const Operation op = Operations()[o];
    bool grew = false;
    char growth[160];
    if (n > 0) {
        snprintf(g_point, sizeof g_point, "%d %ld 0 (first run in the process)", o, n);
        Report("P %s %s", g_point, op.name);
        RunPoint(site, op, ImportFaults::Kind::Allocation, n, 0, grew, growth, sizeof growth);
        Report("D 1");
        ExitProcess(g_failures ? 1 : 0);
    }
    static size_t first[4096], second[4096];
    ImportFaults::KeepSizes(first, 4096);
    RunPoint(site, op, ImportFaults::Kind::Allocation, 0, 0, grew, growth, sizeof growth);
    const size_t a = static_cast<size_t>(std::min(ImportFaults::Counted(), 4096L));
    ImportFaults::KeepSizes(second, 4096);
    RunPoint(site, op, ImportFaults::Kind::Allocation, 0, 0, grew, growth, sizeof growth);
    const size_t b = static_cast<size_t>(std::min(ImportFaults::Counted(), 4096L));
    ImportFaults::KeepSizes(nullptr, 0);
    std::vector<std::vector<uint16_t>> common(a + 1, std::vector<uint16_t>(b + 1, 0));
    for (size_t i = a; i-- > 0;)
        for (size_t j = b; j-- > 0;)
            common[i][j] =
                first[i] == second[j] ? common[i + 1][j + 1] + 1 : std::max(common[i + 1][j], common[i][j + 1]);
    for (size_t i = 0, j = 0; i < a;) {
        if (j < b && first[i] == second[j] && common[i][j] == common[i + 1][j + 1] + 1) {
            ++i, ++j;
        } else if (j < b && common[i][j + 1] >= common[i + 1][j]) {
            ++j;
        } else {
            Report("K %zu", ++i);
        }
    }
    Report("D 0");
    ExitProcess(0);
}

std::string EnvText(const char* name) {
    char value[512];
    DWORD n = GetEnvironmentVariableA(name, value, sizeof value);
    return n && n < sizeof value ? std::string(value, n) : std::string();
}

void SweepChild() {
    SetUnhandledExceptionFilter(&EndOnCrash);
    const bool files = EnvText("AVSCAN_SWEEP") == "files";
    int fromOp = 0, fromN = 1, fromError = 0;
    sscanf(EnvText("AVSCAN_SWEEP_FROM").c_str(), "%d %d %d", &fromOp, &fromN, &fromError);
    const std::string reportPath = EnvText("AVSCAN_SWEEP_REPORT");
    g_report = CreateFileA(reportPath.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0, nullptr);
    if (g_report == INVALID_HANDLE_VALUE) ExitProcess(6);

    // log.dll stays loaded for the whole run: each load of it costs the C runtime heap a little
    // that its unload does not give back, and that is not the plug-in's.
    if (!LoadLibraryW((ExeFolder() + L"\\log.dll").c_str())) ExitProcess(7);
    PluginLibrary library;
    if (!library.Loaded()) ExitProcess(7);
    HMODULE module = GetModuleHandleW(L"AntivirusScan.AL");
    if (!module || !ImportFaults::Install(module)) ExitProcess(8);
    g_module = module;
    g_create = library.create;
    g_destroy = library.destroy;
    Site site;
    ImportFaults::Confine(site.root.c_str());
    CloseHandle(CreateThread(nullptr, 0, &Watchdog, nullptr, 0, nullptr));

    if (EnvText("AVSCAN_SWEEP") == "cold") ColdStart(site, fromOp, fromN);
    const ImportFaults::Kind kind = files ? ImportFaults::Kind::File : ImportFaults::Kind::Allocation;
    const int errors = files ? 3 : 1;
    const std::vector<Operation> ops = Operations();
    // Warm-up: what the first run of each operation allocates once and keeps is allocated before
    // the sweep's heap walks; what a first failure allocates once, RunCheckedPoint tells apart.
    snprintf(g_point, sizeof g_point, "warm-up");
    for (const Operation& op : ops) RunCheckedPoint(site, op, kind, 0, 0);
    long points = 0;
    for (int o = fromOp; o < static_cast<int>(ops.size()); ++o) {
        for (long n = o == fromOp ? fromN : 1;; ++n) {
            bool reached = false;
            for (int e = (o == fromOp && n == fromN) ? fromError : 0; e < errors; ++e) {
                snprintf(g_point, sizeof g_point, "%d %ld %d", o, n, e);
                Report("P %s %s", g_point, ops[o].name);
                reached = RunCheckedPoint(site, ops[o], kind, n, kFileErrors[e]);
                InterlockedIncrement(&g_progress);
                if (!reached) break;
                Report("A %d %lu %s", o, g_answer, g_point);
                ++points;
            }
            if (!reached) break;
        }
    }
    Report("D %ld", points);
    CloseHandle(g_report);
    ExitProcess(g_failures ? 1 : 0);
}

ChildMode sweepChild("failure-sweep", &SweepChild);

// ---- The parent: runs the sweep in children until one reaches the end.
struct SweepOutcome {
    long points = 0;
    std::vector<std::string> failures, crashes;
    std::map<int, std::pair<long, std::set<DWORD>>> answers; // by operation: points, answers seen
    std::vector<long> firstRunOnly;                          // from a cold-start discovery
};

// One child from `from` on; false when it ended before its last point, with `from` set to the
// point after the one it ended at.
bool RunChildFrom(const char* which, std::string& from, SweepOutcome& outcome) {
    const std::wstring report = TempFolder(L"sweep-report") + L"\\report.txt";
    SetEnvironmentVariableA("AVSCAN_SWEEP", which);
    SetEnvironmentVariableA("AVSCAN_SWEEP_FROM", from.c_str());
    SetEnvironmentVariableA("AVSCAN_SWEEP_REPORT", Narrow(report).c_str());
    const DWORD code = RunChild("failure-sweep", 600000);
    std::ifstream in(report.c_str());
    std::string line, last, lastName, ending;
    bool done = false;
    while (std::getline(in, line)) {
        if (line.size() < 2) continue;
        std::istringstream fields(line.substr(2));
        if (line[0] == 'P') {
            int o, e;
            long n;
            fields >> o >> n >> e;
            last = std::to_string(o) + " " + std::to_string(n + (e + 1 >= (std::string(which) == "files" ? 3 : 1))) +
                   " " + std::to_string(e + 1 >= (std::string(which) == "files" ? 3 : 1) ? 0 : e + 1);
            std::getline(fields, lastName);
        } else if (line[0] == 'A') {
            int o;
            DWORD answer;
            fields >> o >> answer;
            ++outcome.answers[o].first;
            outcome.answers[o].second.insert(answer);
        } else if (line[0] == 'K') {
            long n;
            fields >> n;
            outcome.firstRunOnly.push_back(n);
        } else if (line[0] == 'F') {
            outcome.failures.push_back(line.substr(2));
        } else if (line[0] == 'H' || line[0] == 'C') {
            ending = line;
        } else if (line[0] == 'D') {
            long points = 0;
            fields >> points;
            outcome.points += points;
            done = true;
        }
    }
    in.close();
    RemoveFolder(report.substr(0, report.rfind(L'\\')));
    if (done) return true;
    outcome.crashes.push_back("exit code " + std::to_string(code) + " at point (" + lastName + ") " + ending);
    from = last; // empty when it ended before its first point
    return false;
}

SweepOutcome RunSweep(const char* which) {
    SweepOutcome outcome;
    std::string from = "0 1 0";
    for (int run = 0; run < 40 && !from.empty(); ++run)
        if (RunChildFrom(which, from, outcome)) break;
    return outcome;
}

void ExpectClean(const SweepOutcome& outcome, const char* which, long minimumPoints) {
    printf("%s: %ld failure points, %zu crashes or hangs, %zu failed checks\n", which, outcome.points,
           outcome.crashes.size(), outcome.failures.size());
    const std::vector<Operation> ops = Operations();
    for (const auto& entry : outcome.answers) {
        std::string answers;
        for (DWORD a : entry.second.second) answers += (answers.empty() ? "" : ", ") + std::to_string(a);
        printf("  %-55s %4ld points, answers %s\n", ops[entry.first].name, entry.second.first, answers.c_str());
    }
    for (const std::string& crash : outcome.crashes) ADD_FAILURE() << which << ": the child ended: " << crash;
    for (size_t i = 0; i < outcome.failures.size() && i < 40; ++i)
        ADD_FAILURE() << which << ": " << outcome.failures[i];
    EXPECT_GE(outcome.points, minimumPoints);
}

TEST(FailureSweep, EveryAllocationOfEveryOperationFailedInTurn) {
    ExpectClean(RunSweep("allocations"), "allocations", 500);
}

// The operations that make a process's first start-up, reload and file operations: each
// allocation that only their first run makes is failed in a fresh process.
TEST(FailureSweep, AllocationsOfAFirstRunFailedInAFreshProcess) {
    SweepOutcome outcome;
    const std::vector<Operation> ops = Operations();
    for (int o = 0; o < static_cast<int>(ops.size()); ++o) {
        const std::string name = ops[o].name;
        if (name.rfind("Init", 0) != 0 && name.rfind("DelayedStart", 0) != 0 &&
            name.rfind("OnComponentInstalled", 0) != 0)
            continue;
        SweepOutcome found;
        std::string from = std::to_string(o) + " 0 0";
        ASSERT_TRUE(RunChildFrom("cold", from, found)) << "discovery for operation " << o;
        for (long n : found.firstRunOnly) {
            from = std::to_string(o) + " " + std::to_string(n) + " 0";
            RunChildFrom("cold", from, outcome);
        }
    }
    ExpectClean(outcome, "first-run allocations", 0);
}

TEST(FailureSweep, EveryFileCallOfEveryOperationFailedInTurn) { ExpectClean(RunSweep("files"), "file calls", 600); }

} // namespace
