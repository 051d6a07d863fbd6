#include "tests/common/DeepJson.h"

#include <windows.h>

#include <memory>
#include <vector>

namespace testing_support {

Json::Value NestedEnabled(int levels) {
    Json::Value root;
    Json::Value* node = &root;
    // operator[] makes an object of a null value.
    for (int i = 0; i < levels; ++i) node = &(*node)["enabled"];
    *node = true;
    return root;
}

std::string NestedEnabledText(int levels) {
    std::string text;
    text.reserve(static_cast<size_t>(levels) * 13 + 4);
    for (int i = 0; i < levels; ++i) text += "{\"enabled\":";
    text += "true";
    text.append(static_cast<size_t>(levels), '}');
    return text;
}

void ReleaseDeep(Json::Value& value) {
    std::vector<Json::Value> pending;
    pending.push_back(std::move(value));
    value = Json::Value();
    while (!pending.empty()) {
        Json::Value node(std::move(pending.back()));
        pending.pop_back();
        if (node.isObject()) {
            for (const std::string& name : node.getMemberNames()) {
                pending.emplace_back();
                pending.back().swap(node[name]);
            }
        } else if (node.isArray()) {
            for (Json::ArrayIndex i = 0; i < node.size(); ++i) {
                pending.emplace_back();
                pending.back().swap(node[i]);
            }
        }
    }
}

namespace {

DWORD WINAPI RunJob(void* parameter) {
    (*static_cast<const std::function<void()>*>(parameter))();
    return 0;
}

} // namespace

bool RunWithStack(size_t bytes, const std::function<void()>& job) {
    struct Closer {
        void operator()(HANDLE h) const { CloseHandle(h); }
    };
    std::unique_ptr<void, Closer> thread(CreateThread(nullptr, bytes, &RunJob, const_cast<std::function<void()>*>(&job),
                                                      STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
    if (!thread) return false;
    // A job still running after that would go on using `job`: the program ends as a failure.
    if (WaitForSingleObject(thread.get(), 60000) == WAIT_OBJECT_0) return true;
    TerminateProcess(GetCurrentProcess(), 3);
    return false;
}

} // namespace testing_support
