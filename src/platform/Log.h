#pragma once

#include "platform/Export.h"

#include <functional>
#include <string_view>

namespace almanor {

// The system's own one-line messages ("Failed to fetch records: ...", "Recalculating event").
// The tray application prints them on standard output; the command line sends them to standard
// error so that its standard output carries only results.
class ALMANOR_EXPORT Log {
  public:
    using Sink = std::function<void(std::string_view line)>;

    static void line(std::string_view text);
    // Progress detail (one line per record of a pass): written only when G_MESSAGES_DEBUG names
    // "all" or "almanor", as GLib's own debug messages are.
    static void debug(std::string_view text);
    static void toStandardOutput();
    static void toStandardError();
    // Replaces the destination (tests capture lines with it); an empty sink restores stdout.
    static void setSink(Sink sink);
};

} // namespace almanor
