#pragma once

#include "cloud/CloudRecord.h"

#include <optional>
#include <string>
#include <string_view>

namespace almanor::caldav {

// The iCalendar resource of a record: one VEVENT whose UID is the record name. Every field is an
// X-CD-... property naming its key and type, so the record reads back exactly; beside them the
// properties a calendar app shows (SUMMARY, DTSTAMP, an all-day DTSTART on the event's local day,
// and for recurring events an RRULE on the days the event recurs on).
std::string writeRecordCalendar(const CloudRecord& record, Instant now);

// The record a resource holds, or nullopt when it holds no VEVENT of `recordType` (the user's
// other events). Fields that cannot be read are left out. Throws CloudError when the text is not
// iCalendar at all.
std::optional<CloudRecord> readRecordCalendar(std::string_view text, const std::string& recordType,
                                              const std::string& zoneName);

// TEXT escaping of content-line values, and folding of a content line at 75 octets without
// splitting a UTF-8 sequence; both exposed for the tests.
std::string escapeText(std::string_view value);
std::string foldLine(std::string_view line);

} // namespace almanor::caldav
