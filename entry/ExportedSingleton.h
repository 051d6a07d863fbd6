#pragma once
// Declares one exported class under an object name: every create hands out the same instance,
// counted; the last release destroys it, and so does the library unload whatever the count.
#include "entry/ObjectRegistry.h"
#include "support/ProcessExit.h"

namespace qv {

template <class T> class ExportedSingletonDeclaration : public IObjectConstructor {
public:
    // Runs at library load, where an exception would end the host: a name that could not be
    // inserted (out of memory) is simply not found by QvCreateObject.
    explicit ExportedSingletonDeclaration(const wchar_t* name) noexcept : name_(name) {
        ObjectRegistry* registry = ObjectRegistry::AddRef();
        holdsRegistry_ = registry != nullptr;
        if (registry) {
            auto lock = registry->Lock();
            try {
                registry->Insert(name_, this);
            } catch (...) {
            }
        }
    }

    // Runs at library unload. When the unload comes from the process ending, the object is left
    // as it is: the threads inside it are gone, so waiting for their calls would never end, and
    // the sibling plug-ins and log.dll it would call while going may be detached already. The
    // system reclaims the memory with the process.
    ~ExportedSingletonDeclaration() {
        if (!holdsRegistry_ || ProcessIsEnding()) return;
        {
            RegistryScope registry;
            registry->Remove(name_);
            delete instance_;
            instance_ = nullptr;
            count_ = 0;
        }
        ObjectRegistry::Release();
    }

    // Called under the registry's critical section, which serialises the count.
    IQvBaseInterface* CreateInstance() override {
        if (!instance_) instance_ = new T();
        ++count_;
        return static_cast<IQvBaseInterface*>(instance_->QueryInterface(T::CreateInterfaceId()));
    }

    // The count may go below zero: a release without a create is tolerated, not corrected.
    void ReleaseInstance(IQvBaseInterface*) override {
        if (--count_ == 0) {
            delete instance_;
            instance_ = nullptr;
        }
    }

    bool HasInstances() override { return count_ > 0; }

private:
    const wchar_t* name_;
    T* instance_ = nullptr;
    int32_t count_ = 0;
    bool holdsRegistry_ = false;
};

} // namespace qv
