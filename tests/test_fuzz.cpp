// Bounded randomized tests with fixed seeds, so that every run tries the same cases: engines kit
// update files read through the plug-in (while the update plug-in cannot answer, so the file is
// what counts), and JSON documents taken through the typed values and back. Each case is checked
// against a model of the documented rule, not merely for not crashing.
#include "support/QvValue.h"
#include "tests/common/ScanSlots.h"
#include "tests/common/UpdateFileModel.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
using qv::kxsdk::Update::IUpdate;

constexpr int kUpdateFileCases = 2500;
constexpr int kJsonCases = 3000;

std::string Printable(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes.substr(0, 200)) {
        if (c >= 32 && c < 127) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out + (bytes.size() > 200 ? "..." : "");
}

// A file that looks like an update file often enough to reach every branch of the rule.
std::string RandomUpdateFile(std::mt19937& random) {
    auto pick = [&](unsigned n) { return random() % n; };
    auto randomChar = [&]() -> char {
        unsigned kind = pick(100);
        if (kind < 45) return "abcxyzVERSION0123456789."[pick(24)];
        if (kind < 62) return ' ';
        if (kind < 68) return '\t';
        if (kind < 74) return '\r';
        if (kind < 78) return "+-"[pick(2)];
        if (kind < 92) return static_cast<char>(0x80 + pick(128));
        if (kind < 95) return '\0';
        return static_cast<char>(1 + pick(31));
    };
    std::string file;
    const unsigned lines = pick(7);
    for (unsigned i = 0; i < lines; ++i) {
        std::string line;
        if (pick(3) == 0) {
            // A line of the expected shape: words and then a number or a version.
            line = i == 1 ? "signatures " + std::to_string(static_cast<long long>(random()) - 1000000)
                          : "version " + std::to_string(pick(100)) + "." + std::to_string(pick(1000));
            if (pick(4) == 0) line += std::string(pick(4), " \t\r"[pick(3)]);
        } else {
            size_t length = pick(50) == 0 ? 100 + pick(5000) : pick(24);
            for (size_t k = 0; k < length; ++k) line += randomChar();
        }
        file += line;
        if (i + 1 < lines || pick(10) < 7) file += '\n';
    }
    return file;
}

TEST(Fuzz, UpdateFilesReadThroughThePlugin) {
    PluginUnderTest plugin;
    ASSERT_NE(nullptr, plugin.primary);
    const std::wstring root = TempFolder(L"fuzz");
    const std::wstring engines = root + L"\\engines";
    CreateDirectoryW(engines.c_str(), nullptr);
    CreateDirectoryW((engines + L"\\Plugins").c_str(), nullptr);
    const std::wstring file = engines + L"\\Plugins\\update.txt";
    plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
    plugin.env.update.FailStatistics(1460);
    ASSERT_TRUE(plugin.StartAll());
    auto sinks = plugin.env.update.RegisteredSinks();
    ASSERT_EQ(1u, sinks.size());
    IUpdate::IEvents* face = sinks[0];

    std::mt19937 random(0xA5C4);
    int read = 0, failures = 0;
    for (int n = 0; n < kUpdateFileCases && failures < 5; ++n) {
        const std::string bytes = RandomUpdateFile(random);
        ASSERT_TRUE(WriteBytes(file, bytes));
        // An installation recomputes the signature information from the file.
        IUpdate::ComponentInfo info{L"Updater", L"Antivirus", nullptr};
        ASSERT_EQ(0u, CallSlot<DWORD>(face, 7, &info, engines.c_str()));
        const ExpectedEngines expected = ExpectedFromUpdateFile(bytes);
        read += expected.read ? 1 : 0;
        qv::StringW version;
        uint64_t count = 1;
        const DWORD r1 = GetEnginesVersion(plugin.scan, &version);
        const DWORD r2 = GetSignaturesCount(plugin.scan, &count);
        const std::wstring got(version.c_str(), version.Length());
        if (r1 != 0 || r2 != 0 || got != expected.version || count != expected.count) {
            ++failures;
            ADD_FAILURE() << "case " << n << ": \"" << Printable(bytes) << "\" gave count " << count << " (expected "
                          << expected.count << "), version of " << got.size() << " characters (expected "
                          << expected.version.size() << "), results " << r1 << "/" << r2;
            if (avhost::CapturedLines().size() > 100000) avhost::ClearCapturedLines();
        }
        if (n % 500 == 0) avhost::ClearCapturedLines();
    }
    EXPECT_GT(read, kUpdateFileCases / 4) << "too few cases had four lines";
    EXPECT_LT(read, kUpdateFileCases) << "too few cases were short";
    EXPECT_FALSE(LineStartingWith(L"unexpected exception"));
    plugin.StopAll();
    RemoveFolder(root);
    printf("update files tried: %d (%d with four lines)\n", kUpdateFileCases, read);
}

// ---- JSON through the typed values ----

std::string RandomUtf8(std::mt19937& random, bool allowInvalid) {
    std::string s;
    const unsigned length = random() % 12;
    for (unsigned i = 0; i < length; ++i) {
        unsigned kind = random() % 10;
        uint32_t cp;
        if (kind < 5) cp = 0x20 + random() % 0x5F;
        else if (kind < 7) cp = 0xA0 + random() % 0x700;
        else if (kind < 8) cp = 0x3000 + random() % 0xA000;
        else if (kind < 9) cp = 0x10000 + random() % 0x10000;  // outside the Basic Multilingual Plane
        else cp = 0xE000 + random() % 0x1000;
        if (cp >= 0xD800 && cp < 0xE000) cp = 0x41;
        if (cp < 0x80) {
            s += static_cast<char>(cp);
        } else if (cp < 0x800) {
            s += static_cast<char>(0xC0 | (cp >> 6));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            s += static_cast<char>(0xE0 | (cp >> 12));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            s += static_cast<char>(0xF0 | (cp >> 18));
            s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    if (allowInvalid && random() % 8 == 0) s.insert(random() % (s.size() + 1), 1, static_cast<char>(0x80 + random() % 0x80));
    return s;
}

double RandomNumber(std::mt19937& random) {
    switch (random() % 10) {
    case 0: return 0.0;
    case 1: return -0.5;
    case 2: return static_cast<double>(static_cast<int32_t>(random()));
    case 3: return std::ldexp(static_cast<double>(random()), static_cast<int>(random() % 80));  // past int64 too
    case 4: return static_cast<double>(random()) / 7.0;
    case 5: return -static_cast<double>(random() % 1000) - 0.25;
    case 6: return std::numeric_limits<double>::infinity();
    case 7: return std::nan("");
    case 8: return 9007199254740993.0;
    default: return static_cast<double>(random() % 100);
    }
}

Json::Value RandomJson(std::mt19937& random, int depth) {
    const unsigned kind = random() % (depth > 0 ? 10 : 7);
    switch (kind) {
    case 0: return Json::Value();
    case 1: return Json::Value(random() % 2 == 0);
    case 2: return Json::Value(static_cast<Json::Int>(random()));
    case 3: return Json::Value(static_cast<Json::UInt64>(random()) << (random() % 40));
    case 4: return Json::Value(RandomNumber(random));
    case 5:
    case 6: {
        std::string s = RandomUtf8(random, true);
        return Json::Value(s.data(), s.data() + s.size());
    }
    case 7: {
        Json::Value array(Json::arrayValue);
        for (unsigned n = random() % 5; n; --n) array.append(RandomJson(random, depth - 1));
        return array;
    }
    default: {
        Json::Value object(Json::objectValue);
        for (unsigned n = random() % 5; n; --n) {
            std::string key = RandomUtf8(random, false);
            object[key] = RandomJson(random, depth - 1);
        }
        return object;
    }
    }
}

std::string Utf8RoundTrip(const std::string& s) {
    if (s.empty()) return s;
    int wide = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring w(static_cast<size_t>(wide), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), &w[0], wide);
    int narrow = WideCharToMultiByte(CP_UTF8, 0, w.data(), wide, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(narrow), '\0');
    WideCharToMultiByte(CP_UTF8, 0, w.data(), wide, &out[0], narrow, nullptr, nullptr);
    return out;
}

// What FromJson followed by ToJson must give: numbers pass as doubles and leave as 64-bit
// integers when whole and in range; strings stop at their first NUL and pass through UTF-16.
Json::Value Expected(const Json::Value& in) {
    if (in.isBool()) return Json::Value(in.asBool());
    if (in.isNumeric() || in.isDouble()) {
        const double x = in.asDouble();
        const double whole = std::floor(x);
        if (std::fabs(x - whole) == 0.0 && whole >= -9223372036854775808.0 && whole < 9223372036854775808.0)
            return Json::Value(static_cast<Json::Int64>(whole));
        return Json::Value(x);
    }
    if (in.isString()) return Json::Value(Utf8RoundTrip(in.asCString()));
    if (in.isArray()) {
        Json::Value out(Json::arrayValue);
        for (Json::ArrayIndex i = 0; i < in.size(); ++i) out.append(Expected(in[i]));
        return out;
    }
    if (in.isObject()) {
        Json::Value out(Json::objectValue);
        for (const std::string& key : in.getMemberNames()) out[Utf8RoundTrip(key.c_str())] = Expected(in[key]);
        return out;
    }
    return Json::Value();
}

bool Same(const Json::Value& a, const Json::Value& b) {
    if (a.type() != b.type()) return false;
    if (a.type() == Json::realValue) {
        const double x = a.asDouble(), y = b.asDouble();
        return (std::isnan(x) && std::isnan(y)) || x == y;
    }
    if (a.isArray()) {
        if (a.size() != b.size()) return false;
        for (Json::ArrayIndex i = 0; i < a.size(); ++i)
            if (!Same(a[i], b[i])) return false;
        return true;
    }
    if (a.isObject()) {
        if (a.getMemberNames() != b.getMemberNames()) return false;
        for (const std::string& key : a.getMemberNames())
            if (!Same(a[key], b[key])) return false;
        return true;
    }
    return a == b;
}

// Every accessor on a node of the wrong kind throws ValueException with the documented opening;
// on the right kind it does not throw.
void ExerciseAccessors(qv::Value& value, int& mismatches) {
    const int kind = value.Kind();
    auto throws = [&](auto&& call, bool expected, const char* opening) {
        bool threw = false;
        try {
            call();
        } catch (const qv::ValueException& e) {
            threw = true;
            if (std::string(e.what()).rfind(opening, 0) != 0) {
                ++mismatches;
                ADD_FAILURE() << "message \"" << e.what() << "\" does not start with \"" << opening << "\"";
            }
        }
        if (threw != expected) {
            ++mismatches;
            ADD_FAILURE() << "kind " << kind << ": " << opening << (expected ? " expected" : " not expected");
        }
    };
    (void)value.AsBool();
    (void)value.ToText();
    (void)value.TypeName();
    bool b;
    (void)value.TryGetBool(b);
    throws([&] { (void)value.AsNumber(); }, kind != qv::Value::kNumber, "exception: invalid type [number != ");
    throws([&] { (void)value.Size(); }, kind != qv::Value::kArray && kind != qv::Value::kDict,
           "exception: invalid type[array|dict != ");
    throws([&] { (void)value.Begin(); }, kind != qv::Value::kDict, "exception: invalid type [dict != ");
    throws([&] { (void)value.Find(L"\xD83D\xDE00 absent"); }, true,
           kind == qv::Value::kDict ? "exception: key not found [" : "exception: invalid type [dict != ");
    if (kind == qv::Value::kArray && value.Size() > 0) (void)value.Element(0).ToText();
    if (kind == qv::Value::kDict) {
        for (auto& entry : value) (void)entry.Item().ToText();
    }
}

TEST(Fuzz, JsonDocumentsThroughTypedValuesAndBack) {
    std::mt19937 random(0x15011);
    int mismatches = 0, nodes = 0;
    for (int n = 0; n < kJsonCases && mismatches < 5; ++n) {
        const Json::Value json = RandomJson(random, 4);
        qv::Value value = qv::Value::FromJson(json);
        const Json::Value back = value.ToJson();
        const Json::Value expected = Expected(json);
        if (!Same(expected, back)) {
            ++mismatches;
            ADD_FAILURE() << "case " << n << ": " << json.toStyledString() << " came back as " << back.toStyledString();
        }
        // The second trip is exact: the first one already put the document in canonical form.
        qv::Value again = qv::Value::FromJson(back);
        if (!Same(back, again.ToJson()) || again.ToText() != value.ToText()) {
            ++mismatches;
            ADD_FAILURE() << "case " << n << ": a second round trip changed " << back.toStyledString();
        }
        ExerciseAccessors(value, mismatches);
        if (value.Kind() == qv::Value::kArray || value.Kind() == qv::Value::kDict) {
            nodes += static_cast<int>(value.Size());
            for (uint64_t i = 0; value.Kind() == qv::Value::kArray && i < value.Size(); ++i)
                ExerciseAccessors(value.Element(i), mismatches);
        }
        // Mutators on the wrong kind leave the node as it was.
        const qv::StringW before = value.ToText();
        const int kind = value.Kind();
        const bool setOk = value.SetBool(true);
        EXPECT_EQ(kind == qv::Value::kNull || kind == qv::Value::kBool, setOk);
        if (!setOk) {
            EXPECT_EQ(before, value.ToText());
        }
        const int now = value.Kind();  // a null handle became a bool
        try {
            value.Entry(L"k");
            EXPECT_EQ(qv::Value::kDict, now);
        } catch (const qv::ValueException&) {
            EXPECT_NE(qv::Value::kDict, now);
            EXPECT_EQ(now, value.Kind());
        }
    }
    EXPECT_EQ(0, mismatches);
    printf("JSON documents tried: %d (%d container members)\n", kJsonCases, nodes);
}

// Settings files made from random documents, half of them with a few bytes then changed,
// offered to the settings store: whatever the store accepts converts to typed values and back,
// and what it rejects leaves it empty. Neither crashes.
TEST(Fuzz, RandomSettingsFiles) {
    std::mt19937 random(0xBEEF);
    const std::wstring root = TempFolder(L"fuzzjson");
    const std::wstring file = root + L"\\settings.json";
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    int accepted = 0;
    const int cases = 1500;
    for (int n = 0; n < cases; ++n) {
        Json::Value document(Json::objectValue);
        document["/AntivirusScan"] = RandomJson(random, 4);
        std::string text = Json::writeString(writer, document);
        if (random() % 2) {
            for (unsigned k = 1 + random() % 3; k; --k) {
                const size_t at = random() % text.size();
                switch (random() % 3) {
                case 0: text[at] = static_cast<char>(random()); break;
                case 1: text.insert(at, 1, "{}[]\",:"[random() % 7]); break;
                default: text.erase(at, 1); break;
                }
            }
        }
        ASSERT_TRUE(WriteBytes(file, text));
        host::SettingsStore store;
        const bool ok = store.UseFile(file);
        EXPECT_EQ(!ok, store.LoadedCorrupt());
        if (!ok) {
            EXPECT_TRUE(store.Document().isObject() && store.Document().empty());
            continue;
        }
        ++accepted;
        qv::Value value = qv::Value::FromJson(store.Document());
        EXPECT_EQ(qv::Value::kDict, value.Kind());
        EXPECT_TRUE(Same(Expected(store.Document()), value.ToJson()));
    }
    DeleteFileW(file.c_str());
    RemoveDirectoryW(root.c_str());
    EXPECT_GT(accepted, cases / 4);
    EXPECT_LT(accepted, cases);
    printf("settings files tried: %d (%d accepted as JSON)\n", cases, accepted);
}

} // namespace
