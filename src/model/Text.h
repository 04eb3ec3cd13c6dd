#pragma once

#include "platform/Export.h"

#include <string>
#include <string_view>

namespace almanor {

// The text without white space and line breaks at either end (Unicode White_Space, so
// no-break and ideographic spaces go too). Invalid UTF-8 is left as it is.
ALMANOR_EXPORT std::string trimmed(std::string_view text);

// The text with each control character (C0, DEL, C1) and each line or paragraph separator turned
// into a space, for places that promise one line. Invalid UTF-8 is left as it is.
ALMANOR_EXPORT std::string controlsAsSpaces(std::string_view text);

} // namespace almanor
