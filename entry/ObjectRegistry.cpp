#include "entry/ObjectRegistry.h"

#include "support/SpinGuard.h"

#include <new>

namespace qv {

namespace {
volatile LONG g_spin = 0;
ObjectRegistry* g_registry = nullptr;
LONG g_references = 0;
} // namespace

ObjectRegistry* ObjectRegistry::AddRef() {
    SpinGuard spin(g_spin);
    if (g_references == 0 && !g_registry) {
        g_registry = new (std::nothrow) ObjectRegistry();
    }
    // A registry that could not be created is not counted: the caller holds nothing to release.
    if (!g_registry) return nullptr;
    ++g_references;
    return g_registry;
}

void ObjectRegistry::Release() {
    SpinGuard spin(g_spin);
    if (g_references > 0 && --g_references == 0) {
        delete g_registry;
        g_registry = nullptr;
    }
}

RegistryReference::RegistryReference() : registry_(ObjectRegistry::AddRef()) {
    if (!registry_) throw std::bad_alloc();
}

IObjectConstructor* ObjectRegistry::Find(const wchar_t* name) const noexcept {
    if (!name) return nullptr;
    auto it = constructors_.find(std::wstring_view(name));
    return it == constructors_.end() ? nullptr : it->second;
}

bool ObjectRegistry::Insert(const wchar_t* name, IObjectConstructor* constructor) noexcept {
    if (!name) return false;
    try {
        constructors_.insert_or_assign(std::wstring(name), constructor);
        return true;
    } catch (...) {
        return false;
    }
}

void ObjectRegistry::Remove(const wchar_t* name) noexcept {
    if (!name) return;
    auto it = constructors_.find(std::wstring_view(name));
    if (it != constructors_.end()) constructors_.erase(it);
}

} // namespace qv
