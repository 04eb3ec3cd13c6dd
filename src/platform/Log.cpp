#include "platform/Log.h"

#include "platform/UrlText.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace almanor {

namespace {

struct Destination {
    std::mutex mutex;
    std::FILE* stream = stdout;
    Log::Sink sink;
};

Destination& destination() {
    static Destination d;
    return d;
}

} // namespace

void Log::line(std::string_view text) {
    // Lines carry the server's address and errors that quote it: never a password within it.
    std::string out = redactUrls(text);
    auto& d = destination();
    std::lock_guard lock(d.mutex);
    if (d.sink) {
        d.sink(out);
        return;
    }
    out += '\n';
    std::fwrite(out.data(), 1, out.size(), d.stream);
    std::fflush(d.stream);
}

void Log::toStandardOutput() {
    auto& d = destination();
    std::lock_guard lock(d.mutex);
    d.stream = stdout;
}

void Log::toStandardError() {
    auto& d = destination();
    std::lock_guard lock(d.mutex);
    d.stream = stderr;
}

void Log::setSink(Sink sink) {
    auto& d = destination();
    std::lock_guard lock(d.mutex);
    d.sink = std::move(sink);
}

} // namespace almanor
