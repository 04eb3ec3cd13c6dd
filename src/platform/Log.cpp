#include "platform/Log.h"

#include "platform/UrlText.h"

#include <algorithm>
#include <cstdio>
#include <glib.h>
#include <mutex>
#include <string>

namespace almanor {

namespace {

constexpr const char* domain = "almanor";

struct Destination {
    std::mutex mutex;
    std::FILE* stream = stdout;
    bool prefixes = false;
    Log::Sink sink;
};

Destination& destination() {
    static Destination d;
    return d;
}

std::string_view field(const GLogField* fields, gsize count, std::string_view key) {
    for (gsize i = 0; i < count; ++i) {
        if (key == fields[i].key && fields[i].value != nullptr) {
            const auto* text = static_cast<const char*>(fields[i].value);
            return fields[i].length < 0 ? std::string_view(text)
                                        : std::string_view(text, std::size_t(fields[i].length));
        }
    }
    return {};
}

GLogWriterOutput write(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer) {
    // Other libraries' messages are written as GLib writes them.
    if (field(fields, count, "GLIB_DOMAIN") != domain) {
        return g_log_writer_default(level, fields, count, nullptr);
    }
    auto& d = destination();
    std::lock_guard lock(d.mutex);
    if (d.sink) {
        d.sink(field(fields, count, "MESSAGE"));
        return G_LOG_WRITER_HANDLED;
    }
    if (!d.prefixes && g_log_writer_is_journald(fileno(d.stream))) {
        return g_log_writer_journald(level, fields, count, nullptr);
    }
    std::string out;
    if (d.prefixes) {
        out = "<" + std::string(field(fields, count, "PRIORITY")) + ">";
    }
    out += field(fields, count, "MESSAGE");
    out += '\n';
    std::fwrite(out.data(), 1, out.size(), d.stream);
    std::fflush(d.stream);
    return G_LOG_WRITER_HANDLED;
}

// syslog's priorities: 3 error, 4 warning, 6 information, 7 debug.
void send(int priority, std::string_view text) {
    if (priority == 7 && g_log_writer_default_would_drop(G_LOG_LEVEL_DEBUG, domain)) {
        return;
    }
    // Once per process: GLib takes one writer only.
    static std::once_flag installed;
    std::call_once(installed, [] { g_log_set_writer_func(write, nullptr, nullptr); });
    // Lines carry the server's address and errors that quote it: never a password within it.
    const std::string message = redactUrls(text);
    const std::string number = std::to_string(priority);
    // Errors are reported as criticals: GLib's own error level ends the process.
    GLogLevelFlags level = priority <= 3   ? G_LOG_LEVEL_CRITICAL
                           : priority == 4 ? G_LOG_LEVEL_WARNING
                           : priority <= 6 ? G_LOG_LEVEL_INFO
                                           : G_LOG_LEVEL_DEBUG;
    const GLogField fields[] = {
        {"MESSAGE", message.c_str(), -1},
        {"PRIORITY", number.c_str(), -1},
        {"GLIB_DOMAIN", domain, -1},
        {"SYSLOG_IDENTIFIER", domain, -1},
    };
    g_log_structured_array(level, fields, G_N_ELEMENTS(fields));
}

} // namespace

void Log::error(std::string_view text) {
    send(3, text);
}

void Log::warning(std::string_view text) {
    send(4, text);
}

void Log::info(std::string_view text) {
    send(6, text);
}

void Log::debug(std::string_view text) {
    send(7, text);
}

void Log::forward(std::string_view line) {
    if (line.size() >= 3 && line[0] == '<' && line[1] >= '0' && line[1] <= '7' && line[2] == '>') {
        // Emergencies to errors are all errors here; notices are information.
        int priority = std::max(line[1] - '0', 3);
        send(priority == 5 ? 6 : priority, line.substr(3));
        return;
    }
    send(4, line);
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

void Log::withPriorityPrefixes(bool on) {
    auto& d = destination();
    std::lock_guard lock(d.mutex);
    d.prefixes = on;
}

void Log::setSink(Sink sink) {
    auto& d = destination();
    std::lock_guard lock(d.mutex);
    d.sink = std::move(sink);
}

} // namespace almanor
