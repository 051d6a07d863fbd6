#include "host/sandbox/Console.h"

#include <cstdio>
#include <fcntl.h>
#include <io.h>

namespace sandbox {

Console::Console() {
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}

void Console::Write(FILE* stream, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    fwrite(text.data(), 1, text.size(), stream);
    fflush(stream);
}

void Console::Line(const std::string& text) { Write(traceToError_ ? stderr : stdout, text + "\n"); }

void Console::Error(const std::string& text) { Write(stderr, text + "\n"); }

void Console::Document(const std::string& text) { Write(stdout, text); }

Console& Out() {
    static Console console;
    return console;
}

} // namespace sandbox
