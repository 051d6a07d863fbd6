// Signature version and count: from the update plug-in's statistics, else from
// "Plugins\update.txt" in the engines folder. Cached in the object, withheld during recovery.
#include "plugin/AntivirusScanAL.h"
#include "plugin/SlotGuard.h"
#include "plugin/UpdateFile.h"

#include <shlwapi.h>

namespace qv {

using namespace logging;

namespace {

bool IsUnset(const StringW& value) { return value.IsEmpty(); }
bool IsUnset(uint64_t value) { return value == 0; }
void Withhold(StringW& value) { value.Clear(); }
void Withhold(uint64_t& value) { value = 0; }

// Both getters answer from the copy kept in the object, filled on first use; while recovery
// replaces the engines they answer nothing and say why.
template <class Value, class Fill> DWORD ReadCached(const wchar_t* function, Value* out, const bool& recovering,
                                                    CriticalSection& lock, const Value& cache, Fill fill) {
    if (IsNullArgument(function, out)) return kInvalidParameter;
    return GuardedSlot(function, [&]() -> DWORD {
        if (recovering) {
            WriteMessage(LOG_SEV_WARNING, function, L"EnginesRecoveryInProgress...");
            Withhold(*out);
            return kRecoveryInProgress;
        }
        Value cached;
        {
            auto held = lock.Lock();
            cached = cache;
        }
        if (IsUnset(cached)) {
            fill();
            auto held = lock.Lock();
            cached = cache;
        }
        *out = cached;
        return kSuccess;
    });
}

} // namespace

DWORD AntivirusScanAL::GetEnginesVersion(StringW* version) {
    return ReadCached(L"AntivirusScanAL::GetEnginesVersion", version, enginesRecoveryInProgress, stateLock,
                      signaturesVersion, [this] { ComputeSigInfo(); });
}

DWORD AntivirusScanAL::GetSignaturesCount(uint64_t* count) {
    return ReadCached(L"AntivirusScanAL::GetSignaturesCount", count, enginesRecoveryInProgress, stateLock,
                      signaturesCount, [this] { ComputeSigInfo(); });
}

void AntivirusScanAL::ComputeSigInfo() {
    QV_TRACE(L"AntivirusScanAL::ComputeSigInfo");
    if (enginesRecoveryInProgress) {
        QV_LOG(LOG_SEV_ERROR, L"EnginesRecoveryInProgress...");
        return;
    }
    StringW version;
    uint64_t count = 0;
    if (!GetEnginesInfoFromUpdate(version, count)) {
        StringW folder;
        {
            auto lock = stateLock.Lock();
            folder = settings.enginesFolder;
        }
        StringW countText;
        if (GetEnginesInfoFromFile(folder, version, countText)) {
            count = static_cast<uint64_t>(_wtoi64(countText.c_str()));
        }
    }
    QV_LOG(LOG_SEV_INFO, L"Signature [version = %s] [count = %llu]", version.c_str(),
           static_cast<unsigned long long>(count));
    auto lock = stateLock.Lock();
    signaturesVersion = version;
    signaturesCount = count;
}

bool AntivirusScanAL::GetEnginesInfoFromUpdate(StringW& version, uint64_t& count) {
    QV_TRACE(L"AntivirusScanAL::GetEnginesInfoFromUpdate");
    IUpdate::Statistics statistics;
    DWORD error;
    {
        auto update = updatePlugin.Acquire();
        if (!update) {
            QV_LOG(LOG_SEV_ERROR, L"Update plugin unavailable.");
            return false;
        }
        error = update->GetStatistics(&statistics);
    }
    if (error != 0) {
        QV_LOG(LOG_SEV_ERROR, L"Cannot obtain update statistics. [error = %d]", static_cast<int>(error));
        return false;
    }
    const IUpdate::SignatureStatistics* antivirus = statistics.signatures.FindConst(StringW(L"Antivirus"));
    if (!antivirus) {
        QV_LOG(LOG_SEV_ERROR, L"No AV signatures statistics found.");
        return false;
    }
    version = antivirus->version;
    // Widened with its sign: a negative count reads as a very large unsigned one.
    count = static_cast<uint64_t>(static_cast<int64_t>(antivirus->count));
    return true;
}

bool AntivirusScanAL::GetEnginesInfoFromFile(const StringW& folder, StringW& version, StringW& countText) {
    QV_TRACE(L"AntivirusScanAL::GetEnginesInfoFromFile");
    StringW path = folder;
    if (!path.IsEmpty() && !path.EndsWith(L'\\') && !path.EndsWith(L'/')) path.Append(L'\\');
    path.Append(L"Plugins\\update.txt");
    if (!PathFileExistsW(path.c_str())) {
        QV_LOG(LOG_SEV_ERROR, L"Update file not found [path = %s]", path.c_str());
        return false;
    }
    UpdateFileInfo info;
    switch (ReadUpdateFile(path.c_str(), info)) {
    case UpdateFileRead::Read:
        break;
    case UpdateFileRead::TooLong:
        QV_LOG(LOG_SEV_ERROR, L"Update file too long [limit = %u bytes in the first four lines] [path = %s]",
               static_cast<unsigned>(kUpdateFileHeadLimit), path.c_str());
        return false;
    case UpdateFileRead::Unreadable:
    default:
        return false;
    }
    version = info.version;
    countText = info.countText;
    return true;
}

} // namespace qv
