#include "plugin/AntivirusScanAL.h"
#include "plugin/FeatureNames.h"
#include "plugin/SettingsSection.h"
#include "plugin/SlotGuard.h"

namespace qv {

// A name the feature table does not hold yet: checked, read from the store and remembered.
DWORD AntivirusScanAL::GetUnlistedFeatureStatus(const wchar_t* function, const StringW& name, bool* isLocked) {
    return GuardedSlot(function, [&]() -> DWORD {
        // A refused name is never stored and names compare in full length, so only a name the
        // table does not know needs the check. It is made outside the lock, since a refusal is
        // logged.
        if (!AcceptFeatureName(function, name)) return kInvalidParameter;
        auto lock = stateLock.Lock();
        if (const bool* known = featureLocks.FindConst(name)) { // set by another thread meanwhile
            *isLocked = *known;
            return kSuccess;
        }
        // Unknown features count as locked.
        bool locked = true;
        SettingsSection section(settingsPlugin);
        if (section && !section->GetBool(name.c_str(), locked)) locked = true;
        featureLocks.Set(name, locked);
        *isLocked = locked;
        return kSuccess;
    });
}

} // namespace qv
