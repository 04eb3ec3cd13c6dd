#pragma once

#include "cloud/CloudRecord.h"

#include <optional>
#include <string>
#include <string_view>

namespace almanor::caldav {

// The iCalendar resource of a record: one VEVENT whose UID is the record name. Every field is an
// X-CD-... property naming its key and type, so the record reads back exactly; beside them the
// properties a calendar app shows (SUMMARY, DTSTAMP, LAST-MODIFIED from `modified`, an all-day
// DTSTART on the event's local day, and for recurring events an RRULE on the days the event
// recurs on), and a private copy of the SUMMARY and DTSTART written, by which an app's edit of
// either is told apart.
std::string writeRecordCalendar(const CloudRecord& record, Instant now);

// The record a resource holds, or nullopt when it holds no VEVENT of `recordType` (the user's
// other events). Fields that cannot be read are left out. Throws CloudError when the text is not
// iCalendar at all.
std::optional<CloudRecord> readRecordCalendar(std::string_view text, const std::string& recordType,
                                              const std::string& zoneName);

// The record a resource of the app's own zone holds: every event there is one. A resource that a
// calendar app made (no record fields) reads as a record named by its UID, with "CD_name" from its
// SUMMARY and "CD_date" from its DTSTART (an all-day one: local midnight of that day). An app's
// edit of the SUMMARY or the date of a record of ours counts: the name becomes the SUMMARY, the
// date moves by the days the DTSTART moved. `modified` comes from LAST-MODIFIED, else DTSTAMP.
// Throws CloudError when the text is not iCalendar, holds no event, or one without a UID, or one
// of another record type.
CloudRecord readZoneResource(std::string_view text, const std::string& recordType,
                             const std::string& zoneName);

// TEXT escaping of content-line values, and folding of a content line at 75 octets without
// splitting a UTF-8 sequence; both exposed for the tests.
std::string escapeText(std::string_view value);
std::string foldLine(std::string_view line);

} // namespace almanor::caldav
