#pragma once

#include <string>
#include <string_view>

namespace almanor::cli {

// Appends `text` for a listing that promises one line per item: line breaks, tabs and other
// control characters (C0, DEL, C1, U+2028, U+2029) are written as escapes ("\n", "\t", "\x1b",
// "\u2028"), a backslash as "\\" so that an escape can be told from the same characters typed,
// and bytes that are not UTF-8 as U+FFFD. Anything else is written as it is.
void appendListingText(std::string& out, std::string_view text);

} // namespace almanor::cli
