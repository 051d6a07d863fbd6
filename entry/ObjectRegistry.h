#pragma once
// Module-wide registry of exported object names and their constructors.
#include "sdk/QvBase.h"
#include "support/CriticalSection.h"
#include <map>
#include <string>
#include <string_view>

namespace qv {

struct IObjectConstructor {
    virtual IQvBaseInterface* CreateInstance() = 0;
    virtual void ReleaseInstance(IQvBaseInterface* object) = 0;
    virtual bool HasInstances() = 0;
};

class ObjectRegistry {
public:
    // Each user takes a reference before touching the registry; the first creates it and the
    // last one to leave destroys it. Guarded by a module-global spin word. Null when the
    // registry could not be created; no reference is taken then.
    static ObjectRegistry* AddRef();
    static void Release();

    // The map and every call into a constructor are serialised under this lock.
    [[nodiscard]] CriticalSection::Guard Lock() noexcept { return lock_.Lock(); }
    // Call with the registry locked. Find and Remove allocate nothing: a destroy and the undo
    // of a failed create must give their reference back even when memory has run out.
    IObjectConstructor* Find(const wchar_t* name) const noexcept;
    // False when the name could not be stored.
    bool Insert(const wchar_t* name, IObjectConstructor* constructor) noexcept;
    void Remove(const wchar_t* name) noexcept;

private:
    ObjectRegistry() = default;
    ~ObjectRegistry() = default;

    // Looked up by view (std::less<>), so that a lookup builds no key.
    std::map<std::wstring, IObjectConstructor*, std::less<>> constructors_;
    CriticalSection lock_;
};

// One registry reference, taken at construction (std::bad_alloc when the registry cannot be
// created) and dropped at destruction.
class RegistryReference {
public:
    RegistryReference();
    ~RegistryReference() { ObjectRegistry::Release(); }
    RegistryReference(const RegistryReference&) = delete;
    RegistryReference& operator=(const RegistryReference&) = delete;
    ObjectRegistry* Get() const { return registry_; }

private:
    ObjectRegistry* registry_;
};

// A registry reference for the length of a scope, with the registry locked. The lock is left
// before the reference is dropped: members go in reverse order.
class RegistryScope {
public:
    RegistryScope() : reference_(), lock_(reference_.Get()->Lock()) {}
    RegistryScope(const RegistryScope&) = delete;
    RegistryScope& operator=(const RegistryScope&) = delete;
    ObjectRegistry* operator->() const { return reference_.Get(); }

private:
    RegistryReference reference_;
    CriticalSection::Guard lock_;
};

} // namespace qv
