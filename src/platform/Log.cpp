#include "platform/Log.h"

#include "platform/UrlText.h"

#include <cstdio>
#include <cstdlib>
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

void Log::debug(std::string_view text) {
    static const bool wanted = [] {
        const char* domains = std::getenv("G_MESSAGES_DEBUG");
        if (domains == nullptr)
            return false;
        std::string_view d(domains);
        return d.find("all") != std::string_view::npos ||
               d.find("almanor") != std::string_view::npos;
    }();
    if (wanted)
        line(text);
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
