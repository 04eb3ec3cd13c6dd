#pragma once

#include <string>
#include <string_view>

namespace almanor::cli {

// Appends `text` as a JSON string literal. Control characters are escaped, and bytes that are
// not UTF-8 become U+FFFD, so a damaged name never produces output a parser refuses.
void appendJsonString(std::string& out, std::string_view text);

} // namespace almanor::cli
