#include "dates/DateText.h"

#include "dates/IcuZone.h"

#include <cstdlib>
#include <unicode/datefmt.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/rbnf.h>
#include <unicode/smpdtfmt.h>

namespace almanor {

using icuzone::check;

namespace {

std::string utf8(const icu::UnicodeString& s) {
    std::string out;
    s.toUTF8String(out);
    return out;
}

icu::UnicodeString unicode(std::string_view s) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), int32_t(s.size())));
}

bool digits(std::string_view s) {
    if (s.empty()) {
        return false;
    }
    for (char c : s) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

} // namespace

struct DateText::Impl {
    icu::Locale locale;
    std::unique_ptr<icu::GregorianCalendar> calendar;
    // One formatter, its pattern changed per use, as the menu reuses one for all its sections.
    std::unique_ptr<icu::SimpleDateFormat> formatter;
    std::unique_ptr<icu::RuleBasedNumberFormat> ordinals;
    std::unique_ptr<icu::DateFormat> shortFormat;
};

std::string DateText::userLocale() {
    const char* value = nullptr;
    for (const char* name : {"LC_ALL", "LC_TIME", "LANG"}) {
        const char* v = std::getenv(name);
        if (v != nullptr && *v != '\0') {
            value = v;
            break;
        }
    }
    std::string name = value == nullptr ? "" : value;
    // "de_DE.UTF-8@euro": ICU wants the language and region only.
    name = name.substr(0, name.find_first_of(".@"));
    if (name.empty() || name == "C" || name == "POSIX") {
        return "en_US_POSIX";
    }
    return name;
}

DateText::DateText(const std::string& locale, std::string_view zoneId)
    : impl_(std::make_unique<Impl>()) {
    impl_->locale = icu::Locale::createCanonical(locale.c_str());
    if (impl_->locale.isBogus()) {
        impl_->locale = icu::Locale("en_US_POSIX");
    }
    icuzone::ZonePtr zone = zoneId.empty() ? icuzone::detectHost() : icuzone::named(zoneId);
    if (zone == nullptr) {
        zone = icuzone::detectHost();
    }
    UErrorCode status = U_ZERO_ERROR;
    impl_->calendar =
        std::make_unique<icu::GregorianCalendar>(zone->clone(), impl_->locale, status);
    check(status, __LINE__);
    impl_->formatter =
        std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(), impl_->locale, status);
    check(status, __LINE__);
    impl_->formatter->setCalendar(*impl_->calendar);
    impl_->ordinals =
        std::make_unique<icu::RuleBasedNumberFormat>(icu::URBNF_ORDINAL, impl_->locale, status);
    check(status, __LINE__);
    impl_->shortFormat.reset(
        icu::DateFormat::createDateInstance(icu::DateFormat::kShort, impl_->locale));
    if (impl_->shortFormat == nullptr) {
        impl_->shortFormat.reset(
            icu::DateFormat::createDateInstance(icu::DateFormat::kShort, icu::Locale("en_US")));
    }
    impl_->shortFormat->setCalendar(*impl_->calendar);
    impl_->shortFormat->setLenient(false);
}

DateText::~DateText() = default;
DateText::DateText(DateText&&) noexcept = default;
DateText& DateText::operator=(DateText&&) noexcept = default;

std::string DateText::format(Instant t, std::string_view pattern) const {
    if (pattern.empty()) {
        return {};
    }
    impl_->formatter->applyPattern(unicode(pattern));
    icu::UnicodeString out;
    impl_->formatter->format(double(t.time_since_epoch().count()), out);
    return utf8(out);
}

std::string DateText::ordinal(std::int64_t n) const {
    icu::UnicodeString out;
    impl_->ordinals->format(static_cast<int64_t>(n), out);
    return utf8(out);
}

int DateText::dayOfMonth(Instant t) const {
    UErrorCode status = U_ZERO_ERROR;
    impl_->calendar->setTime(double(t.time_since_epoch().count()), status);
    check(status, __LINE__);
    int day = impl_->calendar->get(UCAL_DATE, status);
    check(status, __LINE__);
    return day;
}

bool DateText::parseDay(std::string_view text, int& year, int& month, int& day) const {
    // Surrounding blanks are forgiven; anything else must be a whole date.
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    if (text.empty()) {
        return false;
    }
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Calendar> calendar(impl_->calendar->clone());
    if (text.size() == 10 && text[4] == '-' && text[7] == '-' && digits(text.substr(0, 4)) &&
        digits(text.substr(5, 2)) && digits(text.substr(8, 2))) {
        int y = std::atoi(std::string(text.substr(0, 4)).c_str());
        int m = std::atoi(std::string(text.substr(5, 2)).c_str());
        int d = std::atoi(std::string(text.substr(8, 2)).c_str());
        calendar->clear();
        calendar->setLenient(false);
        calendar->set(y, m - 1, d);
        calendar->getTime(status); // validates: 2027-02-30 fails here
        if (U_FAILURE(status) || m < 1 || m > 12 || d < 1) {
            return false;
        }
        year = y;
        month = m;
        day = d;
        return true;
    }
    icu::UnicodeString input = unicode(text);
    icu::ParsePosition position(0);
    calendar->clear();
    calendar->setLenient(false);
    impl_->shortFormat->parse(input, *calendar, position);
    if (position.getErrorIndex() >= 0 || position.getIndex() != input.length()) {
        return false;
    }
    calendar->getTime(status); // 31.02. is no day
    year = calendar->get(UCAL_EXTENDED_YEAR, status);
    month = calendar->get(UCAL_MONTH, status) + 1;
    day = calendar->get(UCAL_DATE, status);
    return U_SUCCESS(status);
}

std::string DateText::shortDate(Instant t) const {
    icu::UnicodeString out;
    impl_->shortFormat->format(double(t.time_since_epoch().count()), out);
    return utf8(out);
}

} // namespace almanor
