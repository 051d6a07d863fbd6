#include "host/TelemetryPlugin.h"

namespace host {

namespace {

bool AppendLine(const std::wstring& path, const std::string& line) {
    HANDLE file = CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD wrote = 0;
    bool ok = WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &wrote, nullptr) && wrote == line.size();
    CloseHandle(file);
    return ok;
}

} // namespace

void TelemetryPlugin::SetResult(DWORD code) {
    std::lock_guard<std::mutex> lock(mutex_);
    result_ = code;
}

void TelemetryPlugin::SetJsonLinesFile(const std::wstring& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    path_ = path;
}

std::vector<TelemetryPlugin::EventRecord> TelemetryPlugin::Events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

int TelemetryPlugin::EventCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(events_.size());
}

void TelemetryPlugin::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
}

DWORD TelemetryPlugin::SubmitEvent(const Json::Value& event, int32_t flags) {
    ServedPlugin::Call call(served);
    try {
        EventRecord record{event, flags, GetCurrentThreadId()};
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(record);
        if (!path_.empty()) {
            Json::StreamWriterBuilder builder;
            builder["indentation"] = "";
            builder["emitUTF8"] = true;
            AppendLine(path_, Json::writeString(builder, event) + "\n");
        }
        return result_;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

} // namespace host
