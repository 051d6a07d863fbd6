#pragma once
// Event sinks that other plug-ins register, and the events that call one fixed method of every
// registered sink. Registration takes the container's exclusive lock, so it waits for running
// notifications; notifications only share the lock and may run side by side.
#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "support/SyncRWLock.h"

namespace qv {

template <class T> class SynchronyzedObjectContainer;

// Sinks in registration order, without duplicates or nulls. The lock operations are the
// inherited ones: shared while firing, exclusive while the array changes.
template <class T> class SynchronyzedObjectContainer<T*> : public CSyncRWLock {
public:
    SynchronyzedObjectContainer() = default;

    // 0 when added, 87 for a null sink, 1627 when it is already registered. std::bad_alloc when
    // the array cannot grow, with the lock given back and the array as it was: the slot answers
    // it as out of memory.
    uint32_t Register(T* sink) {
        if (sink == nullptr) return ERROR_INVALID_PARAMETER;
        WriteLockScope scope(*this);
        if (IndexOf(sink) != kAbsent) return ERROR_FUNCTION_FAILED;
        sinks_.push_back(sink);
        return ERROR_SUCCESS;
    }

    // 0 when removed, 87 for a null sink, 1627 when it was not registered. The others keep
    // their order.
    uint32_t Unregister(T* sink) {
        if (sink == nullptr) return ERROR_INVALID_PARAMETER;
        WriteLockScope scope(*this);
        const size_t at = IndexOf(sink);
        if (at == kAbsent) return ERROR_FUNCTION_FAILED;
        sinks_.erase(sinks_.begin() + static_cast<std::ptrdiff_t>(at));
        return ERROR_SUCCESS;
    }

    // Only with the lock held, shared or exclusive.
    size_t Count() const { return sinks_.size(); }
    T* At(size_t index) const { return sinks_[index]; }

private:
    static constexpr size_t kAbsent = static_cast<size_t>(-1);

    size_t IndexOf(T* sink) const {
        for (size_t i = 0; i < sinks_.size(); ++i)
            if (sinks_[i] == sink) return i;
        return kAbsent;
    }

    std::vector<T*> sinks_;
};

// Descriptors of the sink method an event calls: sink interface, result type, argument types
// and the method itself.
template <class I, class R, class A1, R (I::*M)(A1)> struct MemberFunction_1_args {
    using Sink = I;
    using Result = R;
    using Stub = R (I::*)(A1);
    static constexpr Stub method = M;
};

template <class I, class R, class A1, class A2, R (I::*M)(A1, A2)> struct MemberFunction_2_args {
    using Sink = I;
    using Result = R;
    using Stub = R (I::*)(A1, A2);
    static constexpr Stub method = M;
};

// Position of a firing loop in its container.
struct EventCursor {
    size_t next;
};

// One method of one sink interface, fired at every sink of one container. Final, so that the
// firing loop calls begin, next and end directly rather than through the table every time.
template <class Descriptor> class Event final {
public:
    using Sink = typename Descriptor::Sink;
    using Stub = typename Descriptor::Stub;
    using Container = SynchronyzedObjectContainer<Sink*>;

    explicit Event(Container& container) : container_(container) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // Takes the shared lock and points the cursor at the first sink. Without memory for the
    // cursor the cursor stays null, no lock is taken and the notification is skipped.
    virtual bool begin(EventCursor*& cursor) {
        cursor = new (std::nothrow) EventCursor{0};
        if (cursor != nullptr) container_.AcquireRead(0);
        return true;
    }

    virtual bool next(EventCursor* cursor, Sink*& sink, Stub& stub) {
        // Bounds are checked each time: the firing thread may itself hold the write lock.
        if (cursor == nullptr || cursor->next >= container_.Count()) return false;
        sink = container_.At(cursor->next++);
        stub = method();
        return true;
    }

    virtual void end(EventCursor* cursor) {
        if (cursor == nullptr) return;
        container_.ReleaseRead(0);
        delete cursor;
    }

    virtual Stub method() { return Descriptor::method; }

    // Calls the method on every sink, in registration order, on this thread; results are
    // ignored. Arguments are passed on as they are, never moved, since every sink gets them.
    template <class... Args> void Fire(Args&&... args) {
        EventCursor* cursor = nullptr;
        begin(cursor);
        if (cursor == nullptr) return;
        Loop loop{*this, cursor};
        Sink* sink = nullptr;
        Stub stub = nullptr;
        while (next(cursor, sink, stub)) (sink->*stub)(args...);
    }

private:
    // Gives the shared lock back even if a sink lets an exception out.
    struct Loop {
        Event& event;
        EventCursor* cursor;
        ~Loop() { event.end(cursor); }
    };

    Container& container_;
};

} // namespace qv
