#pragma once
// A test in a locale the build made, speaking through the build's catalogues (two folders above
// the test programs) as the programs do; English again when it ends.

#include "platform/Translation.h"

#include <clocale>
#include <cstdlib>

namespace almanor::test {

struct Language {
    explicit Language(const char* locale) {
        ::setenv("LOCPATH", ALMANOR_TEST_LOCALES, 1);
        ::setenv("LC_ALL", locale, 1);
        ::unsetenv("LANGUAGE");
        useTheUsersLanguage("../../locale");
    }
    ~Language() {
        ::unsetenv("LC_ALL");
        std::setlocale(LC_ALL, "C");
    }
};

} // namespace almanor::test
