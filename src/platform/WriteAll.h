#pragma once

#include "platform/Export.h"

#include <string_view>

namespace almanor {

// Writes all of `bytes` to `fd`, going on after interruptions and short writes. False when the
// descriptor refuses (errno says why) or takes nothing, which would otherwise loop for ever.
ALMANOR_EXPORT bool writeAll(int fd, std::string_view bytes);

} // namespace almanor
