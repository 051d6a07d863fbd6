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

// A file that looks like an update file often enough to reach every branch of the rule: lines of
// the expected shape, with trailing blanks, or of random bytes (NULs, high bytes, controls), with
// now and then a very long one, and a last line feed that may be missing.
std::string RandomUpdateFile(std::mt19937& random) {
    auto pick = [&](unsigned n) { return random() % n; };
    static const char kChars[] = "abcxyzVERSION0123456789.+-      \t\t\r\r\0\x01\x1f\x80\xa0\xff\xc3\xe9";
    std::string file;
    const unsigned lines = pick(7);
    for (unsigned i = 0; i < lines; ++i) {
        std::string line;
        if (pick(3) == 0) {
            line = i == 1 ? "signatures " + std::to_string(static_cast<long long>(random()) - 1000000)
                          : "version " + std::to_string(pick(100)) + "." + std::to_string(pick(1000));
            line += std::string(pick(4) == 0 ? pick(4) : 0, " \t\r"[pick(3)]);
        } else {
            size_t k = pick(50) == 0 ? 100 + pick(5000) : pick(24);
            // Now and then the head of the file ends close to its limit, on one side or the other.
            if (pick(400) == 0) k = kUpdateFileHeadBytes - 100 + pick(150);
            for (; k; --k) line += kChars[pick(sizeof kChars - 1)];
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
            ADD_FAILURE() << "case " << n << " (" << bytes.size() << " bytes): count " << count << " for "
                          << expected.count << ", results " << r1 << "/" << r2;
        }
        if (n % 500 == 0) avhost::ClearCapturedLines();
    }
    EXPECT_GT(read, kUpdateFileCases / 4) << "too few cases had four lines";
    EXPECT_LT(read, kUpdateFileCases) << "too few cases were short";
    EXPECT_FALSE(LineStartingWith(L"unexpected exception"));
    plugin.StopAll();
    RemoveFolder(root);
}

std::string ToUtf8(const std::wstring& w) {
    std::string out(w.size() * 3, '\0');
    out.resize(WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), &out[0],
                                   static_cast<int>(out.size()), nullptr, nullptr));
    return out;
}

std::wstring ToWide(const std::string& s) {
    std::wstring out(s.size(), L'\0');
    out.resize(
        MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), &out[0], static_cast<int>(out.size())));
    return out;
}

// Mostly ASCII, some of it outside the Basic Multilingual Plane, sometimes with a stray byte.
std::string RandomUtf8(std::mt19937& random, bool allowInvalid) {
    std::wstring w;
    for (unsigned length = random() % 12; length; --length) {
        const unsigned kind = random() % 10;
        if (kind < 5)
            w += static_cast<wchar_t>(0x20 + random() % 0x5F);
        else if (kind < 7)
            w += static_cast<wchar_t>(0xA0 + random() % 0x700);
        else if (kind < 8)
            w += static_cast<wchar_t>(0x3000 + random() % 0xA800); // stops short of surrogates
        else if (kind < 9)
            w += {static_cast<wchar_t>(0xD800 + random() % 0x400), static_cast<wchar_t>(0xDC00 + random() % 0x400)};
        else
            w += static_cast<wchar_t>(0xE000 + random() % 0x1000);
    }
    std::string s = ToUtf8(w);
    if (allowInvalid && random() % 8 == 0)
        s.insert(random() % (s.size() + 1), 1, static_cast<char>(0x80 + random() % 0x80));
    return s;
}

Json::Value RandomJson(std::mt19937& random, int depth) {
    switch (random() % (depth > 0 ? 10 : 7)) {
    case 0:
        return Json::Value();
    case 1:
        return Json::Value(random() % 2 == 0);
    case 2:
        return Json::Value(static_cast<Json::Int>(random()));
    case 3:
        return Json::Value(static_cast<Json::UInt64>(random()) << (random() % 40));
    case 4: {
        const double numbers[] = {
            -0.5,
            9007199254740993.0,
            std::numeric_limits<double>::infinity(),
            std::nan(""),
            static_cast<double>(random()) / 7.0,
            std::ldexp(static_cast<double>(random()), static_cast<int>(random() % 80))}; // past int64 too
        return Json::Value(numbers[random() % 6]);
    }
    case 5:
    case 6: {
        const std::string s = RandomUtf8(random, true);
        return Json::Value(s.data(), s.data() + s.size());
    }
    case 7: {
        Json::Value array(Json::arrayValue);
        for (unsigned n = random() % 5; n; --n) array.append(RandomJson(random, depth - 1));
        return array;
    }
    default: {
        Json::Value object(Json::objectValue);
        for (unsigned n = random() % 5; n; --n) object[RandomUtf8(random, false)] = RandomJson(random, depth - 1);
        return object;
    }
    }
}

// What FromJson followed by ToJson must give: numbers pass as doubles and leave as 64-bit
// integers when whole and in range; strings stop at their first NUL and pass through UTF-16.
Json::Value Expected(const Json::Value& in) {
    if (in.isBool()) return Json::Value(in.asBool());
    if (in.isNumeric()) {
        const double x = in.asDouble();
        if (std::floor(x) == x && x >= -9223372036854775808.0 && x < 9223372036854775808.0)
            return Json::Value(static_cast<Json::Int64>(x));
        return Json::Value(x);
    }
    if (in.isString()) return Json::Value(ToUtf8(ToWide(in.asCString())));
    Json::Value out(in.type());
    if (in.isArray())
        for (const Json::Value& item : in) out.append(Expected(item));
    if (in.isObject())
        for (const std::string& key : in.getMemberNames()) out[ToUtf8(ToWide(key.c_str()))] = Expected(in[key]);
    return out;
}

// Text that tells apart what must differ: integer from double, NaN and infinities by name.
std::string Canonical(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["useSpecialFloats"] = true;
    writer["precision"] = 17;
    return Json::writeString(writer, value);
}

TEST(Fuzz, JsonDocumentsThroughTypedValuesAndBack) {
    ASSERT_NE(Canonical(Json::Value(3.0)), Canonical(Json::Value(3)));
    std::mt19937 random(0x15011);
    int mismatches = 0;
    for (int n = 0; n < kJsonCases && mismatches < 5; ++n) {
        const Json::Value json = RandomJson(random, 4);
        qv::Value value = qv::Value::FromJson(json);
        const Json::Value back = value.ToJson();
        if (Canonical(Expected(json)) != Canonical(back)) {
            ++mismatches;
            ADD_FAILURE() << "case " << n << ": " << json.toStyledString() << " came back as " << back.toStyledString();
        }
        // The first trip put the document in canonical form: a second one changes nothing.
        qv::Value again = qv::Value::FromJson(back);
        if (Canonical(back) != Canonical(again.ToJson()) || again.ToText() != value.ToText()) {
            ++mismatches;
            ADD_FAILURE() << "case " << n << ": a second round trip changed " << back.toStyledString();
        }
    }
    EXPECT_EQ(0, mismatches);
}

} // namespace
