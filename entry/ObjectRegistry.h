#pragma once
// Module-wide registry of exported object names and their constructors.
#include "sdk/QvBase.h"
#include <map>
#include <string>

namespace qv {

struct IObjectConstructor {
    virtual IQvBaseInterface* CreateInstance() = 0;
    virtual void ReleaseInstance(IQvBaseInterface* object) = 0;
    virtual bool HasInstances() = 0;
};

class ObjectRegistry {
public:
    // Each user takes a reference before touching the registry; the first creates it and the
    // last one to leave destroys it. Guarded by a module-global spin word.
    static ObjectRegistry* AddRef();
    static void Release();

    void Enter() { EnterCriticalSection(&lock_); }
    void Leave() { LeaveCriticalSection(&lock_); }
    // Call with the registry entered.
    IObjectConstructor* Find(const wchar_t* name) const;
    void Insert(const wchar_t* name, IObjectConstructor* constructor);
    void Remove(const wchar_t* name);

private:
    ObjectRegistry() { InitializeCriticalSection(&lock_); }
    ~ObjectRegistry() { DeleteCriticalSection(&lock_); }

    std::map<std::wstring, IObjectConstructor*> constructors_;
    CRITICAL_SECTION lock_;
};

// A registry reference for the length of a scope, with the registry entered.
class RegistryScope {
public:
    RegistryScope() : registry_(ObjectRegistry::AddRef()) { registry_->Enter(); }
    ~RegistryScope() { registry_->Leave(); ObjectRegistry::Release(); }
    RegistryScope(const RegistryScope&) = delete;
    RegistryScope& operator=(const RegistryScope&) = delete;
    ObjectRegistry* operator->() const { return registry_; }

private:
    ObjectRegistry* registry_;
};

} // namespace qv
