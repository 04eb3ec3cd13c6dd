#pragma once

#include "platform/Export.h"

#include <functional>
#include <string_view>

namespace almanor {

// The system's own one-line messages ("Failed to fetch records: ...", "Synced: ..."), sent through
// GLib's structured logging in the domain "almanor" with a priority, so that a journal can sort
// them. Where the journal reads the destination they go to it; elsewhere each is one plain line.
// The tray application prints them on standard output; the command line sends them to standard
// error so that its standard output carries only results. Errors, warnings and information are
// always written; debug detail only when G_MESSAGES_DEBUG names "all" or "almanor", as GLib's own.
class ALMANOR_EXPORT Log {
  public:
    using Sink = std::function<void(std::string_view line)>;

    // Something failed that the user may have to see to.
    static void error(std::string_view text);
    // Something was not as it should be and was passed over.
    static void warning(std::string_view text);
    // A result the user asked for (a sync's one-line summary).
    static void info(std::string_view text);
    // What a developer follows: progress, the choices made at start-up.
    static void debug(std::string_view text);

    // A line of a child process that wrote with priority prefixes: logged at its priority (one
    // without a prefix, such as what a program the child started wrote, as a warning).
    static void forward(std::string_view line);

    static void toStandardOutput();
    static void toStandardError();
    // For a child whose standard error its parent reads: each line starts with its priority as
    // "<N>" (syslog's numbers), which forward() reads back.
    static void withPriorityPrefixes(bool on);
    // Replaces the destination (tests capture the lines that would be written with it); an empty
    // sink restores the stream.
    static void setSink(Sink sink);
};

} // namespace almanor
