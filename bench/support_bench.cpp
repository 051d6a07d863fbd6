// Support pieces measured directly against the bare mechanism beneath each: the reader-writer
// lock, event firing, the string type, typed JSON values and the call trace.
#include "bench/common/Harness.h"
#include "bench/common/LogLibrary.h"
#include "support/Log.h"
#include "support/QvValue.h"
#include "support/SinkContainer.h"
#include "sdk/StringT.h"
#include "support/SyncRWLock.h"

#include <json/json.h>
#include <mmsystem.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

// Every C++ allocation of this program is counted, the lock's own included: its reader table is
// the only thing in an acquisition that could allocate.
namespace {
std::atomic<uint64_t> g_allocations{0};
void* CountedAllocate(size_t n) noexcept {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(n ? n : 1);
}
} // namespace

void* operator new(size_t n) {
    if (void* p = CountedAllocate(n)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t n) {
    if (void* p = CountedAllocate(n)) return p;
    throw std::bad_alloc();
}
void* operator new(size_t n, const std::nothrow_t&) noexcept { return CountedAllocate(n); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return CountedAllocate(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

// A sink interface of the same shape as the plug-in's: one int-returning method per event. Not
// in an anonymous namespace, so that the compiler cannot see every implementation and turn the
// baseline's virtual calls into direct ones.
struct IBenchEvents {
    virtual int OnValue(int value) = 0;
};
struct CountingSink : IBenchEvents {
    int OnValue(int value) override {
        total += value;
        return 0;
    }
    long long total = 0;
};

namespace {

using bench::Compare;
using bench::Comparison;
using bench::Emit;
using bench::Options;
using bench::Printf;
using bench::Progress;
using bench::RatioRow;
using bench::Row;
using bench::Verdict;

// Hides the object's type from the optimiser, so that calls through it stay virtual as they are
// for the plug-in's callers.
template <class T> T* Opaque(T* p) {
    T* volatile hidden = p;
    return hidden;
}

// ---- reader-writer lock -------------------------------------------------------------------------

void LockRows() {
    Progress("reader-writer lock");
    qv::CSyncRWLock lockObject;
    qv::ISyncRWLock* lock = Opaque<qv::ISyncRWLock>(&lockObject);
    SRWLOCK srw = SRWLOCK_INIT;

    Comparison read = Compare(
        [&] {
            lock->AcquireRead(0);
            lock->ReleaseRead(0);
        },
        [&] {
            AcquireSRWLockShared(&srw);
            ReleaseSRWLockShared(&srw);
        });

    // Allocations per acquisition, counted over a million uncontended acquisitions and over the
    // same with four readers holding the lock at once (the reader table must never grow again).
    constexpr int kAcquisitions = 1000000;
    const bench::HeapUse heapBefore = bench::HeapInUse();
    const uint64_t before = g_allocations.load();
    for (int i = 0; i < kAcquisitions; ++i) {
        lock->AcquireRead(0);
        lock->ReleaseRead(0);
    }
    const uint64_t allocations = g_allocations.load() - before;
    const bench::HeapUse heapAfter = bench::HeapInUse();

    Row readRow = RatioRow("CSyncRWLock read acquire + release, uncontended", read, 2.0);
    readRow.goal = "<= 2.0x; no heap allocation";
    if (allocations != 0) readRow.verdict = Verdict::Miss;
    readRow.note = Printf("%llu allocations in %d acquisitions (heap in use %+lld bytes). Floor set by the lock's "
                          "algorithm: each operation enters and leaves its guard critical section and resolves "
                          "the thread id, where the SRW pair is one interlocked operation each way.",
                          static_cast<unsigned long long>(allocations), kAcquisitions,
                          static_cast<long long>(heapAfter.bytes) - static_cast<long long>(heapBefore.bytes));
    Emit(readRow);

    Comparison write = Compare(
        [&] {
            lock->AcquireWrite(0);
            lock->ReleaseWrite(0);
        },
        [&] {
            AcquireSRWLockExclusive(&srw);
            ReleaseSRWLockExclusive(&srw);
        });
    Emit(RatioRow("CSyncRWLock write acquire + release, uncontended", write, 2.0,
                  "Wine's exclusive SRW pair is slower here than the lock's two critical-section passes."));
}

// ---- events ------------------------------------------------------------------------------------

using BenchEvent = qv::Event<qv::MemberFunction_1_args<IBenchEvents, int, int, &IBenchEvents::OnValue>>;

void EventRow() {
    Progress("event firing");
    constexpr int kSinks = 16;
    std::vector<CountingSink> sinks(kSinks);
    qv::SynchronyzedObjectContainer<IBenchEvents*> container;
    std::vector<IBenchEvents*> plain;
    for (CountingSink& s : sinks) {
        container.Register(&s);
        plain.push_back(&s);
    }
    BenchEvent eventObject(container);
    BenchEvent* event = Opaque(&eventObject);
    SRWLOCK srw = SRWLOCK_INIT;
    IBenchEvents* const* items = Opaque(plain.data());
    int value = 1;

    auto baseline = [&] {
        AcquireSRWLockShared(&srw);
        for (int i = 0; i < kSinks; ++i) items[i]->OnValue(value);
        ReleaseSRWLockShared(&srw);
    };
    Comparison c = Compare([&] { event->Fire(value); }, baseline);
    // What the event's algorithm cannot do without: a cursor from the heap, the container's own
    // lock taken shared, and the calls.
    Comparison floor = Compare(
        [&] {
            qv::EventCursor* cursor = new (std::nothrow) qv::EventCursor{0};
            container.AcquireRead(0);
            for (int i = 0; i < kSinks; ++i) items[i]->OnValue(value);
            container.ReleaseRead(0);
            delete cursor;
        },
        baseline);
    Row row = RatioRow("Firing one event to 16 sinks", c, 1.5,
                       Printf("Baseline: 16 virtual calls under an SRW shared lock. Floor set by the event's "
                              "algorithm (an iteration cursor allocated on the heap, the container's CSyncRWLock "
                              "taken shared, the 16 calls): %.1f ns = %.2fx, measured in this run; the rest is the "
                              "cursor's step per sink (the bounds read again, as the firing thread may hold the "
                              "write lock).",
                              floor.subject.median, floor.ratio));
    bench::SetFloor(row, c.subject.median, floor.subject);
    Emit(row);
}

// ---- strings -------------------------------------------------------------------------------------

const wchar_t kPath[] = L"C:\\ProgramData\\Security Service\\Engines\\20240501\\Plugins\\qvcore.dll";
const wchar_t kOtherPath[] = L"C:\\ProgramData\\Security Service\\Temp\\scansp\\core-temp-folder\\a.tmp";
const wchar_t kFormat[] = L"[path = %s] [error = %d]";

// The std::wstring counterpart of the string's format: measure, size, print.
void FormatInto(std::wstring& out, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    va_list measure;
    va_copy(measure, args);
    int n = _vscwprintf(format, measure);
    va_end(measure);
    out.resize(n < 0 ? 0 : static_cast<size_t>(n));
    if (n > 0) _vsnwprintf(&out[0], static_cast<size_t>(n) + 1, format, args);
    va_end(args);
}

void StringRows() {
    Progress("string type");
    {
        qv::StringW s(kOtherPath);
        std::wstring w(kOtherPath);
        int flip = 0;
        Comparison c = Compare(
            [&] {
                s = (++flip & 1) ? kPath : kOtherPath;
                bench::Keep(s);
            },
            [&] {
                w = (++flip & 1) ? kPath : kOtherPath;
                bench::Keep(w);
            });
        Emit(RatioRow("StringT assign (65-character path)", c, 1.2,
                      "Assignment into a string that already has room; both sides measure the text's length."));
    }
    {
        qv::StringW s;
        std::wstring w;
        int error = 0;
        Comparison c = Compare(
            [&] {
                s.Format(kFormat, kPath, ++error);
                bench::Keep(s);
            },
            [&] {
                FormatInto(w, kFormat, kPath, ++error);
                bench::Keep(w);
            });
        Emit(RatioRow("StringT format \"[path = %s] [error = %d]\"", c, 1.2,
                      "Baseline: std::wstring sized from _vscwprintf and printed with _vsnwprintf."));
    }
    {
        // Non-ASCII text, so that the conversions have real work to do.
        const wchar_t* text = L"C:\\Données\\Überprüfung\\Проверка\\扫描\\file-ä.dat";
        qv::StringW s(text);
        qv::StringW back;
        std::wstring w(text);
        std::wstring wback;
        Comparison c = Compare(
            [&] {
                std::string narrow = s.ToUtf8();
                back.AssignUtf8(narrow.data(), narrow.size());
                bench::Keep(back);
            },
            [&] {
                int n =
                    WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), nullptr, 0, nullptr, nullptr);
                std::string narrow(static_cast<size_t>(n), '\0');
                WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), &narrow[0], n, nullptr, nullptr);
                int m = MultiByteToWideChar(CP_UTF8, 0, narrow.data(), static_cast<int>(narrow.size()), nullptr, 0);
                wback.resize(static_cast<size_t>(m));
                MultiByteToWideChar(CP_UTF8, 0, narrow.data(), static_cast<int>(narrow.size()), &wback[0], m);
                bench::Keep(wback);
            });
        Emit(RatioRow("StringT UTF-8 round trip (44 characters, non-ASCII)", c, 1.2,
                      "Both sides build a fresh narrow string and convert back into a reused wide one."));
    }
}

// ---- typed JSON values -----------------------------------------------------------------------

// A settings document of 1,000 members of every kind the store holds.
Json::Value SettingsDocument() {
    Json::Value doc(Json::objectValue);
    for (int i = 0; i < 1000; ++i) {
        char key[48];
        std::snprintf(key, sizeof key, "feature.%04d.%s", i, i % 2 ? "locked" : "enabled");
        switch (i % 6) {
        case 0:
            doc[key] = (i % 12) == 0;
            break;
        case 1:
            doc[key] = Json::Int64(i) * 1000;
            break;
        case 2:
            doc[key] = i + 0.25;
            break;
        case 3:
            doc[key] = std::string("C:\\ProgramData\\Security Service\\item-") + std::to_string(i);
            break;
        case 4: {
            Json::Value list(Json::arrayValue);
            for (int k = 0; k < 3; ++k) list.append(i + k);
            doc[key] = list;
            break;
        }
        default: {
            Json::Value nested(Json::objectValue);
            nested["enabled"] = true;
            nested["level"] = i % 7;
            doc[key] = nested;
            break;
        }
        }
    }
    return doc;
}

// A copy made member by member, objects through operator[](key) and arrays through append, as
// the conversion to jsoncpp has to build its result.
void RebuildByKey(const Json::Value& in, Json::Value& out) {
    if (in.isObject()) {
        out = Json::Value(Json::objectValue);
        for (Json::ValueConstIterator it = in.begin(); it != in.end(); ++it) RebuildByKey(*it, out[it.name()]);
    } else if (in.isArray()) {
        out = Json::Value(Json::arrayValue);
        for (Json::ArrayIndex i = 0; i < in.size(); ++i) {
            Json::Value item;
            RebuildByKey(in[i], item);
            out.append(std::move(item));
        }
    } else {
        out = in;
    }
}

void ValueRows() {
    Progress("typed JSON values");
    const Json::Value doc = SettingsDocument();
    Options options;
    options.batchSeconds = 0.03;
    options.repetitions = 15;
    Comparison from = Compare(
        [&] {
            qv::Value v = qv::Value::FromJson(doc);
            bench::Keep(v);
        },
        [&] {
            Json::Value copy(doc);
            bench::Keep(copy);
        },
        options);
    Emit(RatioRow("qv::Value from Json::Value, 1,000-key settings document", from, 2.0,
                  "Baseline: a deep copy of the same Json::Value (destruction included on both sides)."));

    const qv::Value value = qv::Value::FromJson(doc);
    Comparison to = Compare(
        [&] {
            Json::Value j = value.ToJson();
            bench::Keep(j);
        },
        [&] {
            Json::Value copy(doc);
            bench::Keep(copy);
        },
        options);
    // The conversion must add every member through Json::Value::operator[](key), which looks the
    // key up and copies it twice; the same document rebuilt that way from the Json::Value itself.
    Comparison rebuilt = Compare(
        [&] {
            Json::Value j;
            RebuildByKey(doc, j);
            bench::Keep(j);
        },
        [&] {
            Json::Value copy(doc);
            bench::Keep(copy);
        },
        options);
    Emit(RatioRow("qv::Value to Json::Value, same document", to, 2.0,
                  Printf("Same baseline. Floor set by the conversion's algorithm (every member added through "
                         "operator[](key), as jsoncpp offers): the same document rebuilt that way from the "
                         "Json::Value itself takes %s = %.2fx in this run.",
                         bench::Duration(rebuilt.subject).c_str(), rebuilt.ratio)));
}

// ---- call trace ------------------------------------------------------------------------------

void TraceRows(bench::LogLibrary& log) {
    Progress("call trace");
    if (!log.Ready()) {
        Row row;
        row.what = "Traced call";
        row.verdict = Verdict::Miss;
        row.note = "log.dll or its recording switch not found beside the program";
        Emit(row);
        return;
    }
    // The object's lifelong reference: with it the library stays loaded between lines.
    logging::CLogDLLRef objectReference;
    objectReference.Acquire();
    const wchar_t* function = L"AntivirusScanAL::TracedCall";
    const wchar_t* title = L"AntivirusScanAL::TracedCall()";
    HMODULE self = logging::CurrentModule();
    auto traced = [&] { logging::CFunctionTrace trace(function); };
    auto direct = [&] {
        log.Write(1, logging::LOG_SEV_INFO, self, function, L"-> %s", title);
        log.Write(0xFFFF, logging::LOG_SEV_INFO, self, function, L"<- %s [%d]", title, 0);
    };

    // The trace must read the millisecond tick at entry and exit; under Wine that is a
    // QueryPerformanceCounter, a system call.
    volatile DWORD tick = 0;
    const bench::Stats ticks = bench::Measure([&] {
        tick = timeGetTime();
        tick = timeGetTime();
    });

    log.Keep(bench::LogKeeps::TextOnly);
    Comparison formatting = Compare(traced, direct);
    const double floorRatio = (formatting.baseline.median + ticks.median) / formatting.baseline.median;
    Row traceRow = RatioRow("Traced call (entry and exit lines), object holds its logging reference", formatting, 1.3,
                            Printf("log.dll formats each line's text and keeps nothing (LogTestSetRecording(1)), on "
                                   "both sides. Floor set by the trace's algorithm: its two timeGetTime calls cost "
                                   "%.0f ns here, so the two writes plus the ticks alone are %.2fx; the rest is the "
                                   "per-line reference on the library under the spin word.",
                                   ticks.median, floorRatio));
    bench::Stats writesAndTicks = formatting.baseline;
    writesAndTicks.median += ticks.median;
    writesAndTicks.mad += ticks.mad;
    bench::SetFloor(traceRow, formatting.subject.median, writesAndTicks);
    Emit(traceRow);

    log.Keep(bench::LogKeeps::Nothing);
    Comparison bare = Compare(traced, direct);
    Row row;
    row.what = "Traced call, log.dll returning at once";
    row.measurement = bench::Duration(bare.subject);
    row.baseline = bench::Duration(bare.baseline);
    row.ratio = Printf("%.2fx; +%.0f ns per call", bare.ratio, bare.subject.median - bare.baseline.median);
    row.goal = "report";
    row.verdict = Verdict::Report;
    row.note = Printf("The trace's own cost with a write that does nothing: two millisecond ticks (%.0f ns), the "
                      "title and function copies, and per line a reference taken and given back under the spin "
                      "word, as the logging algorithm prescribes.",
                      ticks.median);
    Emit(row);
    // For reference: log.dll as it normally runs, formatting whole lines and keeping them.
    log.Keep(bench::LogKeeps::Lines);
    Comparison recorded = Compare(traced, direct);
    Row full;
    full.what = "Traced call, log.dll recording its lines (its default)";
    full.measurement = bench::Duration(recorded.subject);
    full.baseline = bench::Duration(recorded.baseline);
    full.ratio = Printf("%.2fx ± %.2f", recorded.ratio, recorded.pairRatios.mad);
    full.goal = "report";
    full.verdict = Verdict::Report;
    full.note = "The same two sides with log.dll laying out, time-stamping and keeping every line in memory.";
    Emit(full);
    objectReference.Release();
}

} // namespace

int main() {
    SetThreadAffinityMask(GetCurrentThread(), 1);
    bench::LogLibrary log;
    LockRows();
    EventRow();
    StringRows();
    ValueRows();
    TraceRows(log);
    return 0;
}
