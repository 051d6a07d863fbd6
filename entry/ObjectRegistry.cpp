#include "entry/ObjectRegistry.h"

namespace qv {

namespace {
volatile LONG g_spin = 0;
ObjectRegistry* g_registry = nullptr;
LONG g_references = 0;

void TakeSpin() {
    while (InterlockedExchange(&g_spin, 1) != 0) Sleep(1);
}
void FreeSpin() { InterlockedExchange(&g_spin, 0); }
} // namespace

ObjectRegistry* ObjectRegistry::AddRef() {
    TakeSpin();
    if (g_references == 0 && !g_registry) {
        g_registry = new (std::nothrow) ObjectRegistry();
    }
    ++g_references;
    ObjectRegistry* registry = g_registry;
    FreeSpin();
    return registry;
}

void ObjectRegistry::Release() {
    TakeSpin();
    if (g_references > 0 && --g_references == 0) {
        delete g_registry;
        g_registry = nullptr;
    }
    FreeSpin();
}

IObjectConstructor* ObjectRegistry::Find(const wchar_t* name) const {
    if (!name) return nullptr;
    auto it = constructors_.find(name);
    return it == constructors_.end() ? nullptr : it->second;
}

void ObjectRegistry::Insert(const wchar_t* name, IObjectConstructor* constructor) {
    constructors_[name] = constructor;
}

void ObjectRegistry::Remove(const wchar_t* name) { constructors_.erase(name); }

} // namespace qv
