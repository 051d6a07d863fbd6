// Logging when log.dll is missing or lacks "LogWrite": this program copies itself into a folder
// prepared that way and runs there as a child process, which logs through its own instance.
#include "host/LogCapture.h"
#include "support/Log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace logging;

namespace {

const wchar_t kModeVariable[] = L"AVSCAN_LOG_FALLBACK_MODE";
const wchar_t kAbsent[] = L"absent";
const wchar_t kNoWrite[] = L"nowrite";
const wchar_t kPassedMarker[] = L"child-passed";

std::wstring ChildMode()
{
    wchar_t mode[32] = {};
    DWORD length = GetEnvironmentVariableW(kModeVariable, mode, 32);
    return length > 0 && length < 32 ? std::wstring(mode) : std::wstring();
}

bool FileExists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// Runs only inside the child process that the tests below start.
TEST(LogFallbackChild, LogsThroughTheStubWithoutCrashing)
{
    std::wstring mode = ChildMode();
    if (mode.empty())
        GTEST_SKIP() << "runs only as a child of the fallback tests";

    CLogDLLRef holder;
    holder.Acquire();
    CLogDLL* dll = holder.Get();
    ASSERT_NE(dll, nullptr);
    ASSERT_NE(dll->write, nullptr);
    uint32_t severity = LOG_SEV_ERROR;
    EXPECT_EQ(Write(dll, 0, &severity, GetModuleHandleW(nullptr), L"Child::Write", L"value %d", 1),
              static_cast<HRESULT>(0x80004002));

    if (mode == kAbsent) {
        EXPECT_EQ(dll->module, nullptr);
        EXPECT_EQ(dll->removeModule, nullptr);
        EXPECT_EQ(dll->uninitDeskMetrics, nullptr);
        EXPECT_EQ(dll->getLevel, nullptr);
        EXPECT_EQ(dll->applySettings, nullptr);
    } else {
        EXPECT_NE(dll->module, nullptr);
        EXPECT_NE(dll->removeModule, nullptr);
        EXPECT_NE(dll->uninitDeskMetrics, nullptr);
        EXPECT_NE(dll->getLevel, nullptr);
        EXPECT_NE(dll->applySettings, nullptr);
    }
    {
        QV_TRACE(L"Child::Held");
        QV_LOG(LOG_SEV_ERROR, L"message %s", L"text");
    }
    holder.Release();
    {
        QV_TRACE(L"Child::Unheld");
    }
    EXPECT_EQ(UseCount(), 0);
    EXPECT_EQ(GetModuleHandleW(L"log.dll"), nullptr);

    if (mode == kNoWrite) {
        // The library was loaded and shut down as usual, but never written to.
        EXPECT_TRUE(avhost::CapturedLines().empty());
        avhost::LogCounters counters = avhost::Counters();
        EXPECT_EQ(counters.initCalls, 3);
        EXPECT_EQ(counters.deinitCalls, 3);
        EXPECT_EQ(counters.removeModuleCalls, 3);
    }
    if (!HasFailure()) {
        HANDLE marker = CreateFileW((avhost::ProgramFolder() + kPassedMarker).c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (marker != INVALID_HANDLE_VALUE)
            CloseHandle(marker);
    }
}

class LogFallback : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!ChildMode().empty())
            GTEST_SKIP();
        wchar_t temp[MAX_PATH];
        ASSERT_NE(GetTempPathW(MAX_PATH, temp), 0u);
        folder_ = std::wstring(temp) + L"avscan-log-fallback-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                  std::to_wstring(GetTickCount()) + L"\\";
        ASSERT_TRUE(CreateDirectoryW(folder_.c_str(), nullptr));
        CopyProgramWithoutLogLibrary();
    }

    void TearDown() override
    {
        if (folder_.empty())
            return;
        for (const std::wstring& file : copied_)
            DeleteFileW(file.c_str());
        DeleteFileW((folder_ + kPassedMarker).c_str());
        RemoveDirectoryW(folder_.c_str());
    }

    void Copy(const std::wstring& from, const std::wstring& name)
    {
        std::wstring to = folder_ + name;
        ASSERT_TRUE(CopyFileW(from.c_str(), to.c_str(), FALSE)) << "cannot copy " << std::string(from.begin(), from.end());
        copied_.push_back(to);
    }

    // The program and every DLL beside it except log.dll.
    void CopyProgramWithoutLogLibrary()
    {
        std::vector<wchar_t> path(32768);
        GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        Copy(path.data(), L"test_log_fallback.exe");
        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW((avhost::ProgramFolder() + L"*.dll").c_str(), &found);
        if (search == INVALID_HANDLE_VALUE)
            return;
        do {
            if (_wcsicmp(found.cFileName, L"log.dll") != 0)
                Copy(avhost::ProgramFolder() + found.cFileName, found.cFileName);
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }

    // Exit code of the child, or a failure when it does not end in time.
    DWORD RunChild(const wchar_t* mode)
    {
        std::wstring program = folder_ + L"test_log_fallback.exe";
        std::wstring commandLine = L"\"" + program + L"\" --gtest_filter=LogFallbackChild.*";
        SetEnvironmentVariableW(kModeVariable, mode);
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION process{};
        BOOL started = CreateProcessW(program.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr,
                                      folder_.c_str(), &startup, &process);
        SetEnvironmentVariableW(kModeVariable, nullptr);
        if (!started) {
            ADD_FAILURE() << "cannot start the child: " << GetLastError();
            return ~0u;
        }
        DWORD exitCode = ~0u;
        if (WaitForSingleObject(process.hProcess, 120000) == WAIT_OBJECT_0)
            GetExitCodeProcess(process.hProcess, &exitCode);
        else {
            ADD_FAILURE() << "the child did not end";
            TerminateProcess(process.hProcess, 1);
            WaitForSingleObject(process.hProcess, 10000);
        }
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
        return exitCode;
    }

    std::wstring folder_;
    std::vector<std::wstring> copied_;
};

TEST_F(LogFallback, AbsentLibraryLeavesOnlyTheStub)
{
    EXPECT_EQ(RunChild(kAbsent), 0u);
    EXPECT_TRUE(FileExists(folder_ + kPassedMarker));
}

TEST_F(LogFallback, LibraryWithoutLogWriteGetsTheStub)
{
    Copy(avhost::ProgramFolder() + L"nowrite\\log.dll", L"log.dll");
    EXPECT_EQ(RunChild(kNoWrite), 0u);
    EXPECT_TRUE(FileExists(folder_ + kPassedMarker));
}

} // namespace
