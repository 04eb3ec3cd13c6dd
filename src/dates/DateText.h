#pragma once

#include "model/DateWriter.h"
#include "platform/Export.h"
#include "platform/Instant.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace almanor {

// Dates and ordinals as the user's locale writes them, through ICU: a date pattern ("MMM d, yyyy",
// "E", "MMM ") in the user's time zone, and ordinal numbers ("1st", "22nd" in English).
class ALMANOR_EXPORT DateText final : public DateWriter {
  public:
    // The locale for dates: LC_ALL, else LC_TIME, else LANG, as ICU names it ("de_DE.UTF-8@euro"
    // -> "de_DE"); "C", "POSIX" or nothing set -> "en_US_POSIX".
    static std::string userLocale();

    // Over the current time zone (TZ, else the system's) unless one is named.
    explicit DateText(const std::string& locale = userLocale(), std::string_view zoneId = {});
    ~DateText() override;
    DateText(DateText&&) noexcept;
    DateText& operator=(DateText&&) noexcept;

    std::string format(Instant t, std::string_view pattern) const override;
    std::string ordinal(std::int64_t n) const override;
    int dayOfMonth(Instant t) const override;
    // Parses a date typed in the locale's short form (or YYYY-MM-DD) to the start of that day in
    // the zone; false when the text is no date.
    bool parseDay(std::string_view text, int& year, int& month, int& day) const;
    // The locale's short date form of `t` (what parseDay reads back).
    std::string shortDate(Instant t) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace almanor
