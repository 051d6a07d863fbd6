#pragma once
// The sandbox's readable trace. Lines come from the host's thread and from the sibling
// plug-ins' notification threads, so each line is written whole under one lock. The trace goes
// to standard output, or to standard error when standard output carries the JSON summary.
#include <mutex>
#include <string>

namespace sandbox {

class Console {
public:
    Console(); // switches both streams to plain "\n" line ends; text is UTF-8
    void TraceToStandardError(bool yes) { traceToError_ = yes; }
    void Line(const std::string& text);
    void Error(const std::string& text);    // one line on standard error
    void Document(const std::string& text); // raw text on standard output (the JSON summary)

private:
    void Write(FILE* stream, const std::string& text);
    std::mutex mutex_;
    bool traceToError_ = false;
};

Console& Out();

} // namespace sandbox
