#pragma once

#include "platform/Export.h"

#include <string_view>

namespace almanor {

// Exit status of a process stopped by fatalError.
inline constexpr int fatalExitStatus = 3;

// Stops the process after one line on standard error: "<site>:<line>: Fatal error: <message>".
// Used for the states the system cannot continue from (a store that cannot be opened, a calendar
// operation that fails); it never returns.
[[noreturn]] ALMANOR_EXPORT void fatalError(std::string_view site, int line,
                                            std::string_view message);

} // namespace almanor
