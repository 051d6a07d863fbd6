#pragma once
// The measuring harness of the benchmark programs: warm-up, a batch size calibrated to a fixed
// duration, repetitions, median and spread, with the subject and its baseline measured in
// alternating batches of the same run, so that a noisy machine or Wine's own overheads hit both
// sides alike and cancel out of the ratio.
//
// Every program writes its results as tab-separated "ROW" lines on standard output; the bench
// script gathers them into one table.
#include <windows.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

inline double TicksPerSecond() {
    static const double frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return static_cast<double>(f.QuadPart);
    }();
    return frequency;
}

inline double Now() {
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return static_cast<double>(t.QuadPart) / TicksPerSecond();
}

// Keeps the optimiser from dropping a result that nothing else reads.
template <class T> inline void Keep(const T& value) { asm volatile("" : : "g"(&value) : "memory"); }

struct Stats {
    double median = 0;
    double mad = 0; // median absolute deviation from the median
    double min = 0;
    double max = 0;
    int count = 0;
};

inline double MedianOf(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

inline Stats StatsOf(const std::vector<double>& samples) {
    Stats s;
    if (samples.empty()) return s;
    s.count = static_cast<int>(samples.size());
    s.median = MedianOf(samples);
    std::vector<double> deviations;
    for (double x : samples) deviations.push_back(std::fabs(x - s.median));
    s.mad = MedianOf(deviations);
    s.min = *std::min_element(samples.begin(), samples.end());
    s.max = *std::max_element(samples.begin(), samples.end());
    return s;
}

struct Options {
    double warmupSeconds = 0.05; // per side, before calibration
    double batchSeconds = 0.002; // one repetition of one side: short, so most run undisturbed
    int repetitions = 51;        // per side
};

// Seconds taken by `iterations` calls of f.
template <class F> double TimeBatch(F& f, uint64_t iterations) {
    const double start = Now();
    for (uint64_t i = 0; i < iterations; ++i) f();
    return Now() - start;
}

// Runs f for about `seconds` and returns how many calls fit into `batchSeconds`.
template <class F> uint64_t WarmUpAndCalibrate(F& f, double seconds, double batchSeconds) {
    uint64_t n = 1;
    double spent = 0;
    double perCall = 0;
    for (;;) {
        const double t = TimeBatch(f, n);
        spent += t;
        perCall = t / static_cast<double>(n);
        if (spent >= seconds && t > batchSeconds / 4) break;
        n = n * 2;
    }
    const double fit = perCall > 0 ? batchSeconds / perCall : 1.0;
    return fit < 1 ? 1 : static_cast<uint64_t>(fit);
}

struct Comparison {
    Stats subject;    // nanoseconds per call
    Stats baseline;   // nanoseconds per call
    double ratio = 0; // median subject / median baseline
    Stats pairRatios; // subject / baseline of each alternating pair: the spread of the ratio
};

// Measures both sides in alternating batches of equal duration and compares their medians.
template <class A, class B> Comparison Compare(A&& subject, B&& baseline, const Options& options = Options()) {
    const uint64_t na = WarmUpAndCalibrate(subject, options.warmupSeconds, options.batchSeconds);
    const uint64_t nb = WarmUpAndCalibrate(baseline, options.warmupSeconds, options.batchSeconds);
    std::vector<double> a, b, r;
    for (int rep = 0; rep < options.repetitions; ++rep) {
        // Alternate which side goes first, so that neither always runs on a warmer cache.
        double ta, tb;
        if (rep % 2 == 0) {
            ta = TimeBatch(subject, na);
            tb = TimeBatch(baseline, nb);
        } else {
            tb = TimeBatch(baseline, nb);
            ta = TimeBatch(subject, na);
        }
        a.push_back(ta * 1e9 / static_cast<double>(na));
        b.push_back(tb * 1e9 / static_cast<double>(nb));
        r.push_back(a.back() / b.back());
    }
    Comparison c;
    c.subject = StatsOf(a);
    c.baseline = StatsOf(b);
    c.ratio = c.baseline.median > 0 ? c.subject.median / c.baseline.median : 0;
    c.pairRatios = StatsOf(r);
    return c;
}

// Nanoseconds per call of f alone, measured as Compare measures each side.
template <class F> Stats Measure(F&& f, const Options& options = Options()) {
    const uint64_t n = WarmUpAndCalibrate(f, options.warmupSeconds, options.batchSeconds);
    std::vector<double> samples;
    for (int rep = 0; rep < options.repetitions; ++rep)
        samples.push_back(TimeBatch(f, n) * 1e9 / static_cast<double>(n));
    return StatsOf(samples);
}

// ---- formatting -------------------------------------------------------------------------------

inline std::string Printf(const char* format, ...) {
    char buffer[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

// "123 ns ± 4" with a unit that keeps three significant figures readable.
inline std::string Duration(double ns, double spreadNs) {
    if (ns >= 1e6) return Printf("%.2f ms ± %.2f", ns / 1e6, spreadNs / 1e6);
    if (ns >= 1e4) return Printf("%.1f µs ± %.1f", ns / 1e3, spreadNs / 1e3);
    if (ns >= 1e3) return Printf("%.2f µs ± %.2f", ns / 1e3, spreadNs / 1e3);
    return Printf("%.1f ns ± %.1f", ns, spreadNs);
}

inline std::string Duration(const Stats& s) { return Duration(s.median, s.mad); }

// ---- result rows ------------------------------------------------------------------------------

enum class Verdict { Pass, Miss, Report };

struct Row {
    std::string what;
    std::string measurement;
    std::string baseline;
    std::string ratio;
    std::string goal;
    Verdict verdict = Verdict::Report;
    std::string note;
    // Where the documented algorithm itself costs more than the bare mechanism: that floor,
    // measured in the same run, and the subject against it with a goal of its own.
    std::string floor;
    std::string floorRatio;
    std::string floorGoal;
    Verdict floorVerdict = Verdict::Report;
};

inline std::string Clean(std::string s) {
    for (char& c : s)
        if (c == '\t' || c == '\n' || c == '\r') c = ' ';
    return s;
}

inline const char* VerdictText(Verdict v) {
    return v == Verdict::Pass ? "ok" : v == Verdict::Miss ? "MISS" : "reported";
}

// One line per row on standard output: ROW, what, measurement, baseline, ratio, goal, result,
// note, then floor, ratio to the floor, goal against the floor and its result (empty without one).
inline void Emit(const Row& row) {
    const bool floored = !row.floor.empty();
    std::printf("ROW\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n", Clean(row.what).c_str(),
                Clean(row.measurement).c_str(), Clean(row.baseline).c_str(), Clean(row.ratio).c_str(),
                Clean(row.goal).c_str(), VerdictText(row.verdict), Clean(row.note).c_str(), Clean(row.floor).c_str(),
                Clean(row.floorRatio).c_str(), Clean(row.floorGoal).c_str(),
                floored ? VerdictText(row.floorVerdict) : "");
    std::fflush(stdout);
}

// Progress for whoever watches the run; standard error, so it never mixes with the rows.
inline void Progress(const char* what) {
    std::fprintf(stderr, "bench: %s\n", what);
    std::fflush(stderr);
}

// A row for "at most goal x" comparisons.
inline Row RatioRow(const std::string& what, const Comparison& c, double goal, const std::string& note = "") {
    Row row;
    row.what = what;
    row.measurement = Duration(c.subject);
    row.baseline = Duration(c.baseline);
    row.ratio = Printf("%.2fx ± %.2f", c.ratio, c.pairRatios.mad);
    row.goal = Printf("<= %.1fx", goal);
    row.verdict = c.ratio <= goal ? Verdict::Pass : Verdict::Miss;
    row.note = note;
    return row;
}

// The floor beneath a row (nanoseconds per call, same run) and the subject's ratio to it, with
// its own goal: the plug-in may cost at most `goal` times what its documented algorithm must.
inline void SetFloor(Row& row, double subjectNs, const Stats& floor, double goal = 1.2) {
    const double ratio = floor.median > 0 ? subjectNs / floor.median : 0;
    row.floor = Duration(floor);
    row.floorRatio = Printf("%.2fx", ratio);
    row.floorGoal = Printf("<= %.1fx", goal);
    row.floorVerdict = floor.median > 0 && ratio <= goal ? Verdict::Pass : Verdict::Miss;
}

// ---- heap ---------------------------------------------------------------------------------------

struct HeapUse {
    uint64_t bytes = 0;  // in busy blocks
    uint64_t blocks = 0; // busy blocks
};

// Walks every heap of the process and adds up the blocks in use.
inline HeapUse HeapInUse() {
    HeapUse use;
    std::vector<HANDLE> heaps(64);
    DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    if (count > heaps.size()) {
        heaps.resize(count + 16);
        count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    }
    heaps.resize(std::min<size_t>(count, heaps.size()));
    for (HANDLE heap : heaps) {
        if (!HeapLock(heap)) continue;
        PROCESS_HEAP_ENTRY entry{};
        entry.lpData = nullptr;
        while (HeapWalk(heap, &entry)) {
            if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) {
                use.bytes += entry.cbData;
                ++use.blocks;
            }
        }
        HeapUnlock(heap);
    }
    return use;
}

} // namespace bench
