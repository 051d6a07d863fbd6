#pragma once
// Owners of Win32 handles: each closes its handle exactly once, with the function that matches
// how it was obtained. Move-only; `Get` lends the handle, `Release` gives it up, `Reset` closes.
#include <windows.h>

#include <utility>

namespace qv {

template <class Traits> class UniqueWinHandle {
public:
    using Type = typename Traits::Type;

    UniqueWinHandle() noexcept : value(Traits::Invalid()) {}
    explicit UniqueWinHandle(Type h) noexcept : value(h) {}
    UniqueWinHandle(UniqueWinHandle&& other) noexcept : value(other.Release()) {}
    UniqueWinHandle& operator=(UniqueWinHandle&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    UniqueWinHandle(const UniqueWinHandle&) = delete;
    UniqueWinHandle& operator=(const UniqueWinHandle&) = delete;
    ~UniqueWinHandle() { Reset(); }

    Type Get() const noexcept { return value; }
    bool IsValid() const noexcept { return Traits::IsValid(value); }
    explicit operator bool() const noexcept { return IsValid(); }
    Type Release() noexcept { return std::exchange(value, Traits::Invalid()); }
    void Reset(Type h = Traits::Invalid()) noexcept {
        Type old = std::exchange(value, h);
        if (Traits::IsValid(old)) Traits::Close(old);
    }
    // For functions that hand a new handle back through a pointer.
    Type* Put() noexcept {
        Reset();
        return &value;
    }

private:
    Type value;
};

namespace handle_traits {
// Handles that some functions give back as null and others as INVALID_HANDLE_VALUE on failure:
// both count as no handle.
struct EitherInvalid {
    using Type = HANDLE;
    static bool IsValid(Type h) { return h != INVALID_HANDLE_VALUE && h != nullptr; }
};
// Files, folders and devices: CreateFileW and NtCreateFile disagree on the failure value.
struct File : EitherInvalid {
    static Type Invalid() { return INVALID_HANDLE_VALUE; }
    static void Close(Type h) { CloseHandle(h); }
};
// Events, semaphores, processes, threads: null when absent.
struct Kernel : EitherInvalid {
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { CloseHandle(h); }
};
struct Find : EitherInvalid {
    static Type Invalid() { return INVALID_HANDLE_VALUE; }
    static void Close(Type h) { FindClose(h); }
};
struct Module {
    using Type = HMODULE;
    static Type Invalid() { return nullptr; }
    static bool IsValid(Type h) { return h != nullptr; }
    static void Close(Type h) { FreeLibrary(h); }
};
} // namespace handle_traits

using UniqueHFile = UniqueWinHandle<handle_traits::File>;
using UniqueHandle = UniqueWinHandle<handle_traits::Kernel>;
using UniqueHFind = UniqueWinHandle<handle_traits::Find>;
using UniqueHModule = UniqueWinHandle<handle_traits::Module>;

} // namespace qv
