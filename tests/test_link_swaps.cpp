// A second process flips the names the plug-in deletes and creates in, between a real folder
// (or nothing) and a link to a canary folder outside the sandbox, without pause, while the
// plug-in runs its deletions and placeholders: 2,000 start-ups each. The flipper runs on the Unix
// side under Wine (tests/link_flipper.c) and watches the canary: not one canary entry may be
// opened, created, changed or moved, so the plug-in never reaches through a link, and the canary
// must hold what it held at the end. One thing no Windows program can stop under Wine 8 is told
// apart and reported instead: its server deletes a file by path after checking that the path
// still leads to the file, and a flip between the two removes the canary's entry of that name
// without anyone opening it (on Windows the file object itself is deleted). Each run is framed by
// a handshake with the flipper, never by a wait.
#include <winsock2.h>

#include "tests/common/LogAndFileChecks.h"
#include "tests/common/SymbolicLinks.h"

#include "support/WinHandle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

namespace {

using namespace testing_support;
using namespace testing_support::slots;

constexpr ULONGLONG kDeadlineMs = 240000; // per case; about 60 to 100 s on two busy cores

// 2000 rounds per case; AVSCAN_SWAP_ITERATIONS sets fewer for a run that only needs the plain
// behaviour under links (the mutation run), never more. A shortened case still goes on, up to the
// 2000, until it has seen the plug-in reach its own files: whether a round finds the names
// unflipped is chance, and a case must not fail for want of luck.
int Iterations() {
    wchar_t text[16] = {};
    const DWORD n = GetEnvironmentVariableW(L"AVSCAN_SWAP_ITERATIONS", text, 16);
    const int wanted = n > 0 && n < 16 ? _wtoi(text) : 2000;
    return wanted < 100 ? 100 : wanted > 2000 ? 2000 : wanted;
}

struct Flip {
    std::wstring name, aside, target;
};

// A socket closed exactly once.
struct UniqueSocket {
    SOCKET s = INVALID_SOCKET;
    UniqueSocket() = default;
    explicit UniqueSocket(SOCKET s) : s(s) {}
    UniqueSocket(const UniqueSocket&) = delete;
    UniqueSocket& operator=(const UniqueSocket&) = delete;
    ~UniqueSocket() {
        if (s != INVALID_SOCKET) closesocket(s);
    }
};

// The flipper, spoken to one line at a time over a loopback connection that it opens to the
// test (Wine hands no pipes to a Unix program).
class LinkFlipper {
public:
    LinkFlipper() { started = WSAStartup(MAKEWORD(2, 2), &wsa) == 0; }
    ~LinkFlipper() {
        if (channel.s != INVALID_SOCKET) Send("quit\n");
        if (started) WSACleanup();
    }
    bool Start(const std::vector<Flip>& flips) {
        UniqueSocket listener(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int size = sizeof address;
        if (!started || listener.s == INVALID_SOCKET || bind(listener.s, reinterpret_cast<sockaddr*>(&address), size) ||
            listen(listener.s, 1) || getsockname(listener.s, reinterpret_cast<sockaddr*>(&address), &size))
            return false;
        std::wstring command = L"link_flipper " + std::to_wstring(ntohs(address.sin_port));
        for (const Flip& f : flips) {
            const std::string triple = UnixPath(f.name) + "|" + UnixPath(f.aside) + "|" + UnixPath(f.target);
            command += L" \"" + std::wstring(triple.begin(), triple.end()) + L"\"";
        }
        STARTUPINFOW si{};
        si.cb = sizeof si;
        PROCESS_INFORMATION pi{};
        const std::wstring program = ExeFolder() + L"\\link_flipper";
        if (!CreateProcessW(program.c_str(), &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
            return false;
        qv::UniqueHandle process(pi.hProcess), thread(pi.hThread);
        // A flipper that never calls back fails the test instead of hanging it.
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(listener.s, &ready);
        timeval limit{30, 0};
        if (select(0, &ready, nullptr, nullptr, &limit) != 1) return false;
        channel.s = accept(listener.s, nullptr, nullptr);
        return channel.s != INVALID_SOCKET;
    }
    bool Go() { return Send("go\n") && Receive() == "on"; }
    struct Round {
        long flips = -1;   // made since Go; -1 when the flipper did not answer
        long touches = -1; // canary entries opened, created, changed or moved by anyone
        long unlinks = 0;  // canary entries removed without being opened: Wine's own server
    };
    Round Stop() {
        Round round;
        const std::string answer = Send("stop\n") ? Receive() : std::string();
        if (answer.compare(0, 4, "off ") == 0)
            (void)sscanf(answer.c_str() + 4, "%ld %ld %ld", &round.flips, &round.touches, &round.unlinks);
        return round;
    }

private:
    bool Send(const char* line) {
        const int length = static_cast<int>(strlen(line));
        return send(channel.s, line, length, 0) == length;
    }
    std::string Receive() {
        std::string line;
        char c = 0;
        while (line.size() < 64 && recv(channel.s, &c, 1, 0) == 1 && c != '\n') line += c;
        return line;
    }
    WSADATA wsa{};
    bool started = false;
    UniqueSocket channel;
};

class LinkSwaps : public ::testing::Test {
protected:
    void SetUp() override {
        if (!OnWine() || GetFileAttributesW((ExeFolder() + L"\\link_flipper").c_str()) == INVALID_FILE_ATTRIBUTES)
            GTEST_SKIP() << "the link flipper runs on Wine's Unix side";
        top = TempFolder(L"swaps");
        canary = TempFolder(L"swaps-canary");
        aside = top + L"\\aside";
        engines = top + L"\\engines";
        plugins = engines + L"\\Plugins";
        common = top + L"\\common";
        parent = top + L"\\temp";
        core = parent + L"\\scansp";
        for (const std::wstring& dir : {aside, engines, plugins, common, common + L"\\installer", parent, core})
            CreateDirectoryW(dir.c_str(), nullptr);
        plugin.env.servConfig.SetText(17, L"scansp", core.c_str());
        plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
        plugin.env.servConfig.SetText(0, L"common", common.c_str());
    }
    void TearDown() override {
        flipper.reset();
        if (!top.empty()) {
            RemoveTreeFromUnix(top);
            RemoveTreeFromUnix(canary);
        }
    }
    // Every canary file holds "canary", and nothing else is there.
    void FillCanary(const std::vector<std::wstring>& names) {
        canaryNames = names;
        std::sort(canaryNames.begin(), canaryNames.end());
        for (const std::wstring& name : names) WriteBytes(canary + L"\\" + name, "canary");
    }
    std::string CanaryState() {
        std::string text;
        for (const std::wstring& name : Names(canary))
            text += Narrow(name) + "=" + ReadBytes(canary + L"\\" + name) + " ";
        return text;
    }
    bool CanaryIntact() {
        std::vector<std::wstring> now = Names(canary);
        std::sort(now.begin(), now.end());
        if (now != canaryNames) return false;
        for (const std::wstring& name : now)
            if (ReadBytes(canary + L"\\" + name) != "canary") return false;
        return true;
    }
    // `name` flips to a link to the canary folder, or to `inCanary` within it.
    void AddFlip(const std::wstring& name, const wchar_t* inCanary = L"") {
        flips.push_back({name, aside + L"\\" + std::to_wstring(flips.size()), canary + inCanary});
    }
    void MakeFolders(std::initializer_list<std::wstring> folders) {
        for (const std::wstring& dir : folders) CreateDirectoryW(dir.c_str(), nullptr);
    }

    // Runs `restore` and then `run` Iterations() times while the names flip, and on until
    // `reached` says the plug-in did its own work at least once.
    void Swap(const std::function<void()>& restore, const std::function<void()>& run,
              const std::function<bool()>& reached) {
        flipper.reset(new LinkFlipper);
        ASSERT_TRUE(flipper->Start(flips));
        const ULONGLONG start = GetTickCount64();
        long flipped = 0, serverUnlinks = 0;
        const int iterations = Iterations();
        for (int i = 0; i < 2000 && (i < iterations || !reached()); ++i) {
            restore();
            ASSERT_TRUE(flipper->Go()) << "iteration " << i;
            run();
            const LinkFlipper::Round round = flipper->Stop();
            ASSERT_GE(round.flips, 0) << "iteration " << i;
            // Nothing of this process reached into the canary: not one entry opened, made or changed.
            ASSERT_EQ(round.touches, 0) << "the plug-in reached through a link by iteration " << i << ": "
                                        << CanaryState();
            flipped += round.flips;
            if (round.unlinks > 0) {
                // Wine's server removed a canary entry by a path that a flip redirected between its
                // check and its removal (Windows deletes the file object itself): put it back.
                serverUnlinks += round.unlinks;
                FillCanary(canaryNames);
            }
            avhost::ClearCapturedLines();
            if (i % 100 == 99) {
                ASSERT_TRUE(CanaryIntact()) << "a canary entry was hit by iteration " << i << ": " << CanaryState();
            }
            ASSERT_LT(GetTickCount64() - start, kDeadlineMs) << "only " << i << " iterations in time";
        }
        EXPECT_TRUE(CanaryIntact());
        EXPECT_GE(flipped, iterations);
        RecordProperty("flips", static_cast<int>(flipped));
        RecordProperty("wineServerUnlinks", static_cast<int>(serverUnlinks));
        printf("flips: %ld; canary entries removed by Wine's server after a redirected path: %ld\n", flipped,
               serverUnlinks);
    }

    PluginUnderTest plugin;
    std::unique_ptr<LinkFlipper> flipper;
    std::vector<Flip> flips;
    std::vector<std::wstring> canaryNames;
    std::wstring top, canary, aside, engines, plugins, common, parent, core;
};

// Remote-only files under "Plugins", the cache under "installer" and the engine placeholders in
// the engines folder, all in one recovery start-up.
TEST_F(LinkSwaps, RemoteOnlyCacheAndRecoveryPlaceholders) {
    const std::wstring installer = common + L"\\installer";
    FillCanary({L"dalvik.cvd", L"lhdb.cvd", L"nnml.cvd", L"wslib.db", L"wslib.m"});
    for (const std::wstring& name : {plugins, installer}) AddFlip(name);
    AddFlip(engines + L"\\qvcore.dll", L"\\qvcore.dll"); // a dangling link: nothing may be created there
    plugin.env.servConfig.SetText(51, L"BASE", L"remote");
    plugin.env.remoteScan.SetStatus(true);
    plugin.env.manager.SetMissing(qv::kxsdk::ids::kScanSpName);
    int deleted = 0, created = 0;
    Swap(
        [&] {
            for (const wchar_t* name : {L"dalvik.cvd", L"lhdb.cvd", L"nnml.cvd"})
                WriteBytes(plugins + L"\\" + name, "own");
            WriteBytes(installer + L"\\wslib.db", "own");
            WriteBytes(installer + L"\\wslib.m", "own");
            for (const wchar_t* name : {L"qvcore.dll", L"scanclient.dll", L"smartdbv2.dat"})
                DeleteFileW((engines + L"\\" + name).c_str());
        },
        [&] {
            plugin.StartAll();
            plugin.StopAll();
            if (!Exists(plugins + L"\\dalvik.cvd") && !Exists(installer + L"\\wslib.db")) ++deleted;
            if (Exists(engines + L"\\scanclient.dll")) ++created;
        },
        [&] { return deleted > 0 && created > 0; });
    EXPECT_GT(deleted, 0) << "the plug-in never reached its own files";
    EXPECT_GT(created, 0);
}

// The placeholders of a local scan type under "Plugins", and the core temp clean of a started
// plug-in.
TEST_F(LinkSwaps, PluginPlaceholdersAndCoreTempClean) {
    const std::wstring old = parent + L"\\old", keep = parent + L"\\keep";
    FillCanary({L"x.tmp", L"dump.tmp"});
    for (const std::wstring& name : {plugins, old, keep + L"\\inner"}) AddFlip(name);
    int cleaned = 0;
    Swap(
        [&] {
            MakeFolders({old, keep, keep + L"\\inner"});
            for (const wchar_t* name : {L"lhdb.cvd", L"nnml.cvd", L"xgdb.cvd"})
                DeleteFileW((plugins + L"\\" + name).c_str());
            WriteBytes(old + L"\\x.tmp", "own");
            WriteBytes(keep + L"\\inner\\dump.tmp", "own");
        },
        [&] {
            plugin.StartAll();
            plugin.StopAll();
            if (!Exists(keep)) ++cleaned;
        },
        [&] { return cleaned > 0; });
    EXPECT_GT(cleaned, 0) << "the clean never reached the siblings";
}

} // namespace
