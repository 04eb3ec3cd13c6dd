#pragma once
// A test's texts in a language, through the build's own catalogues, in a locale the build made
// (tests/CMakeLists.txt); English again when it ends.

#include "platform/Translation.h"

#include <clocale>
#include <cstdlib>
#include <gtest/gtest.h>

namespace almanor::test {

class Language {
  public:
    explicit Language(const char* locale) {
        ::setenv("LOCPATH", ALMANOR_TEST_LOCALES, 1);
        ::unsetenv("LANGUAGE");
        ::bindtextdomain(textDomain, ALMANOR_TEST_CATALOGUES);
        ::bind_textdomain_codeset(textDomain, "UTF-8");
        EXPECT_NE(std::setlocale(LC_MESSAGES, locale), nullptr) << locale << " was not made";
    }
    ~Language() { std::setlocale(LC_MESSAGES, "C"); }
    Language(const Language&) = delete;
    Language& operator=(const Language&) = delete;
};

} // namespace almanor::test
