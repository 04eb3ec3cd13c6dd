#pragma once
// Internal to the dates library: ICU zone creation shared by DateText and IcuCalendar.

#include "platform/Export.h"
#include "platform/Fatal.h"

#include <memory>
#include <string>
#include <string_view>
#include <unicode/basictz.h>
#include <unicode/timezone.h>

namespace almanor::icuzone {

using ZonePtr = std::unique_ptr<icu::BasicTimeZone>;

inline ZonePtr adopt(icu::TimeZone* zone) {
    auto* basic = dynamic_cast<icu::BasicTimeZone*>(zone);
    if (basic == nullptr) {
        delete zone;
        fatalError("Almanor/Utility", __LINE__, "The time zone has no transition rules");
    }
    return ZonePtr(basic);
}

// The user's zone as it is now: TZ, else /etc/localtime. Read afresh on every call.
inline ZonePtr detectHost() {
    return adopt(icu::TimeZone::detectHostTimeZone());
}

// nullptr for a name ICU does not know.
inline ZonePtr named(std::string_view id) {
    auto name = icu::UnicodeString::fromUTF8(icu::StringPiece(id.data(), int32_t(id.size())));
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(name));
    icu::UnicodeString got;
    zone->getID(got);
    if (got == icu::UnicodeString(u"Etc/Unknown") && id != "Etc/Unknown") {
        return nullptr;
    }
    return adopt(zone.release());
}

inline std::string idOf(const icu::TimeZone& zone) {
    icu::UnicodeString id;
    zone.getID(id);
    std::string out;
    id.toUTF8String(out);
    return out;
}

[[noreturn]] ALMANOR_EXPORT inline void failed(int line, UErrorCode status) {
    fatalError("Almanor/Utility", line,
               std::string("Calendar operation failed: ") + u_errorName(status));
}

inline void check(UErrorCode status, int line) {
    if (U_FAILURE(status)) {
        failed(line, status);
    }
}

} // namespace almanor::icuzone
