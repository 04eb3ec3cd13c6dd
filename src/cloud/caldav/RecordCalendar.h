#pragma once

#include "cloud/CalendarFile.h"
#include "cloud/CloudRecord.h"

#include <optional>
#include <span>
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
// Every record so, in one VCALENDAR: the calendar file that `almanor events export` writes.
std::string writeCalendar(std::span<const CloudRecord> records, Instant now);

// A calendar file's events (each VEVENT that overrides no occurrence), each read as
// readZoneResource reads a resource, with zoneName as the records' zone. Skipped, each with why:
// a VEVENT without a UID or a date, a UID seen before in the file, a record of another type, and
// one of a calendar app whose recurrence no schedule stands for (another frequency, an interval,
// an end, days of its own). Throws CloudError when the text is not iCalendar or is cut short.
CalendarFile readCalendarFile(std::string_view text, const std::string& recordType,
                              const std::string& zoneName);

// The resource `current` as the server holds it, with the record written into it: of what
// calendar apps show, only what differs from what `current` reads as changes (the SUMMARY for the
// name; the DTSTART and DTEND move by the days the date moved, keeping their time of day and
// zone; the RRULE for the schedule); the record's own properties, DTSTAMP and LAST-MODIFIED are
// written anew; every other property and component stays. Throws CloudError when `current` is
// no calendar with an event of the record's type, or holds what libical could not write back.
std::string mergeRecordCalendar(std::string_view current, const CloudRecord& record, Instant now);

// The record a resource holds, or nullopt when it holds no VEVENT of `recordType` (the user's
// other events). Fields that cannot be read are left out. Throws CloudError when the text is not
// iCalendar at all.
std::optional<CloudRecord> readRecordCalendar(std::string_view text, const std::string& recordType,
                                              const std::string& zoneName);

// The record a resource of the app's own zone holds: every event there is one (the VEVENT that
// overrides no occurrence). A resource that a calendar app made (no record fields) reads as a
// record named by its UID, with "CD_name" from its SUMMARY, "CD_date" from its DTSTART (in its
// TZID's zone, by the resource's VTIMEZONE or else the system's; a day or a floating time in the
// user's zone: an all-day one is local midnight of that day) and "CD_recurring" from an RRULE
// that is a plain weekly, monthly or yearly one. An app's edit of the SUMMARY or the date of a
// record of ours counts: the name becomes the SUMMARY, the date moves by the days the DTSTART
// moved. `modified` comes from LAST-MODIFIED, else DTSTAMP. Throws CloudError when the text is
// not iCalendar, holds no event, or one without a UID, or one of another record type.
CloudRecord readZoneResource(std::string_view text, const std::string& recordType,
                             const std::string& zoneName);

// TEXT escaping of content-line values, and folding of a content line at 75 octets without
// splitting a UTF-8 sequence; both exposed for the tests.
std::string escapeText(std::string_view value);
std::string foldLine(std::string_view line);

} // namespace almanor::caldav
