// Signature version and count: from the update plug-in's statistics, else from
// "Plugins\update.txt" in the engines folder. Cached in the object, withheld during recovery.
#include "plugin/AntivirusScanAL.h"
#include "plugin/SlotGuard.h"
#include "plugin/UpdateFile.h"

#include <shlwapi.h>

namespace qv {

using namespace logging;

DWORD AntivirusScanAL::GetEnginesVersion(StringW* version) {
    QV_FUNCTION(L"AntivirusScanAL::GetEnginesVersion");
    if (IsNullArgument(qvFunctionName_, version)) return kInvalidParameter;
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        if (enginesRecoveryInProgress) {
            QV_LOG(LOG_SEV_WARNING, L"EnginesRecoveryInProgress...");
            version->Clear();
            return kRecoveryInProgress;
        }
        StringW cached;
        {
            auto lock = stateLock.Lock();
            cached = signaturesVersion;
        }
        if (cached.IsEmpty()) {
            ComputeSigInfo();
            auto lock = stateLock.Lock();
            cached = signaturesVersion;
        }
        *version = cached;
        return kSuccess;
    });
}

DWORD AntivirusScanAL::GetSignaturesCount(uint64_t* count) {
    QV_FUNCTION(L"AntivirusScanAL::GetSignaturesCount");
    if (IsNullArgument(qvFunctionName_, count)) return kInvalidParameter;
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        if (enginesRecoveryInProgress) {
            QV_LOG(LOG_SEV_WARNING, L"EnginesRecoveryInProgress...");
            *count = 0;
            return kRecoveryInProgress;
        }
        uint64_t cached;
        {
            auto lock = stateLock.Lock();
            cached = signaturesCount;
        }
        if (cached == 0) {
            ComputeSigInfo();
            auto lock = stateLock.Lock();
            cached = signaturesCount;
        }
        *count = cached;
        return kSuccess;
    });
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
