#pragma once

#include "platform/Export.h"

#include <initializer_list>
#include <libintl.h>
#include <string>
#include <string_view>

namespace almanor {

// The catalogues' name: share/locale/<language>/LC_MESSAGES/almanor.mo.
inline constexpr const char* textDomain = "almanor";

// The user's language for a text the catalogue template holds (a literal marked _, N_ or P_);
// the text itself when there is no translation. The pointer lives as long as the process.
inline const char* _(const char* text) {
    return ::dgettext(textDomain, text);
}

// Marks a text for the template where it is defined (a table, a constant made before the
// catalogue is bound); _() translates it where it is shown.
constexpr const char* N_(const char* text) {
    return text;
}

// The form of a message with a number in it, by the language's own plural rule (Czech has
// three forms: 1 den, 2 dny, 5 dní).
inline const char* P_(const char* one, const char* other, unsigned long count) {
    return ::dngettext(textDomain, one, other, count);
}

// `pattern` (a translated message) with its conversions (%s, %d, %zu, or %1$s ... when a
// translation reorders them) replaced by `values` in order, and %% by %. No printf: a catalogue
// cannot make it read past the values, and numbers come in as the caller wrote them.
ALMANOR_EXPORT std::string formatText(std::string_view pattern,
                                      std::initializer_list<std::string_view> values);

// Messages in the user's language, chosen as GNU programs choose it (LANGUAGE, unless the locale
// is C; then LC_ALL, LC_MESSAGES, LANG), from the catalogues beside the program (a build tree)
// or at `installedRelative` from its folder. Only the messages and the character set follow the
// locale: numbers, sorting and dates keep the C locale's rules.
ALMANOR_EXPORT void useTheUsersLanguage(std::string_view installedRelative);

} // namespace almanor
