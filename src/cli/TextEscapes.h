#pragma once

#include <string>
#include <string_view>

namespace almanor::cli {

// Both escapers write bytes that are not UTF-8 as U+FFFD and a backslash, a line feed, a tab and a
// carriage return as "\\", "\n", "\t" and "\r"; they differ in the rest.

// Appends `text` as a JSON string literal: quotes escaped, other controls as "\u00XX", so a
// damaged name never produces output a parser refuses.
void appendJsonString(std::string& out, std::string_view text);

// Appends `text` for a listing that promises one line per item: other control characters as "\x1b"
// (C0, DEL) or "\u0085" (C1, U+2028, U+2029), so that an escape can be told from the same
// characters typed. Anything else is written as it is.
void appendListingText(std::string& out, std::string_view text);

} // namespace almanor::cli
