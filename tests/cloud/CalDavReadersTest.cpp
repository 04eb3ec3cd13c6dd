#include "cloud/CloudService.h"
#include "cloud/caldav/Http.h"
#include "cloud/caldav/Multistatus.h"
#include "cloud/caldav/RecordCalendar.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace almanor::caldav {
namespace {

using namespace std::chrono;

CloudRecord sample(std::string name) {
    CloudRecord r;
    r.recordType = "CD_Event";
    r.recordId = RecordId{"REC-1", "zone"};
    r.fields["CD_name"] = std::move(name);
    r.fields["CD_alias"] = std::string();
    r.fields["CD_date"] = Instant{sys_days{year{2028} / 2 / 29} + hours{12} + milliseconds{7}};
    r.fields["CD_recurring"] = std::int64_t{3};
    r.fields["CD_version"] = std::int64_t{-9000000000000000000};
    r.fields["CD_ratio"] = 0.1 + 0.2;
    return r;
}

TEST(RecordCalendar, HostileTextAndEveryTypeReadBackExactly) {
    setenv("TZ", "UTC", 1);
    const std::vector<std::string> texts = {
        "a,b;c\\d\\,e",        "line\nbreak\n",
        "\"quoted\" 'x'",      "emoji 🎉👩‍👩‍👧",
        std::string(300, 'x'), std::string(100, 'x') + "é" + std::string(40, 'x') + "€🎉",
        "\\n not a newline",   "tab\there",
        "carriage\rreturn",    std::string("nul\0inside", 10),
        "\xff\xfe not utf-8"};
    for (const auto& text : texts) {
        CloudRecord r = sample(text);
        std::string ics = writeRecordCalendar(r, Instant{});
        for (std::size_t start = 0; start < ics.size();) {
            std::size_t end = ics.find("\r\n", start);
            ASSERT_NE(end, std::string::npos);
            EXPECT_LE(end - start, 75u) << ics.substr(start, end - start);
            start = end + 2;
        }
        auto back = readRecordCalendar(ics, "CD_Event", "zone");
        ASSERT_TRUE(back) << ics;
        EXPECT_EQ(*back, r) << ics;
    }
}

TEST(RecordCalendar, FoldingNeverSplitsAMultibyteCharacter) {
    std::string line = "SUMMARY:" + std::string(66, 'x') + "€€€€";
    std::string folded = foldLine(line);
    // 74 octets fit, the third octet of the next euro sign would not: the fold comes before it.
    EXPECT_EQ(folded.substr(0, 77), line.substr(0, 74) + "\r\n ");
    EXPECT_EQ(escapeText("a\\;,\n"), "a\\\\\\;\\,\\n");
}

TEST(RecordCalendar, OtherEventsAndOtherTypesAreNotRecords) {
    EXPECT_FALSE(readRecordCalendar(
        "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nUID:x\r\nSUMMARY:Dentist\r\n"
        "DTSTART;VALUE=DATE:20270101\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n",
        "CD_Event", "z"));
    std::string ics = writeRecordCalendar(sample("n"), Instant{});
    EXPECT_FALSE(readRecordCalendar(ics, "CD_Other", "z"));
    EXPECT_FALSE(readRecordCalendar("BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n", "CD_Event", "z"));
    // An ill-typed field is left out, the rest is kept.
    std::string bad = ics;
    bad.replace(bad.find(":-9000000000000000000"), 21, ":12abc");
    auto r = readRecordCalendar(bad, "CD_Event", "z");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->fields.count("CD_version"), 0u);
    EXPECT_EQ(r->fields.count("CD_recurring"), 1u);
}

TEST(RecordCalendar, RecurrenceRulesLandOnTheCountedDays) {
    setenv("TZ", "UTC", 1);
    auto rule = [](year_month_day day, std::int64_t schedule) {
        CloudRecord r = sample("x");
        r.fields["CD_date"] = Instant{sys_days{day}};
        r.fields["CD_recurring"] = schedule;
        std::string ics = writeRecordCalendar(r, Instant{});
        auto at = ics.find("RRULE:");
        return at == std::string::npos ? std::string()
                                       : ics.substr(at + 6, ics.find("\r\n", at) - at - 6);
    };
    EXPECT_EQ(rule(year{2027} / 3 / 14, 1), "FREQ=WEEKLY;BYDAY=SU");
    EXPECT_EQ(rule(year{2027} / 3 / 14, 2), "FREQ=MONTHLY;BYMONTHDAY=14");
    EXPECT_EQ(rule(year{2027} / 1 / 31, 2), "FREQ=MONTHLY;BYMONTHDAY=31,-1;BYSETPOS=1");
    EXPECT_EQ(rule(year{2027} / 1 / 29, 2), "FREQ=MONTHLY;BYMONTHDAY=29,-1;BYSETPOS=1");
    EXPECT_EQ(rule(year{2028} / 2 / 29, 3), "FREQ=YEARLY;BYMONTH=2;BYMONTHDAY=29,-1;BYSETPOS=1");
    EXPECT_EQ(rule(year{2027} / 12 / 31, 3), "FREQ=YEARLY;BYMONTH=12;BYMONTHDAY=31");
    EXPECT_EQ(rule(year{2027} / 12 / 31, 0), "");
}

TEST(Multistatus, MatchesByNamespaceNotPrefixAndReadsStatuses) {
    auto responses = readMultistatus(R"(<?xml version="1.0"?>
<x:multistatus xmlns:x="DAV:" xmlns:C="urn:ietf:params:xml:ns:caldav" xmlns:d="not-dav">
 <x:response><x:href> /alice/cal/ </x:href>
  <x:propstat><x:prop><x:resourcetype><x:collection/><C:calendar/></x:resourcetype><d:href>/wrong/</d:href></x:prop>
   <x:status>HTTP/1.1 200 OK</x:status></x:propstat>
  <x:propstat><x:prop><x:displayname/></x:prop><x:status>HTTP/1.1 404 Not Found</x:status></x:propstat>
 </x:response>
 <x:response><x:href>/alice/x</x:href><x:status>HTTP/1.1 403 Forbidden</x:status>
  <x:error><x:resource-must-be-null/></x:error></x:response>
</x:multistatus>)");
    ASSERT_EQ(responses.size(), 2u);
    EXPECT_EQ(responses[0].href, "/alice/cal/");
    const DavProperty* type = responses[0].property(davNs, "resourcetype");
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->children.at(1), (XmlName{std::string(calDavNs), "calendar"}));
    EXPECT_EQ(responses[0].property(davNs, "displayname"), nullptr); // only in the 404 propstat
    EXPECT_TRUE(type->hrefs.empty());
    EXPECT_EQ(responses[0].effectiveStatus(), 404);
    EXPECT_EQ(responses[1].effectiveStatus(), 403);
    EXPECT_EQ(responses[1].errors.at(0).local, "resource-must-be-null");
}

TEST(Multistatus, RefusesEntitiesDtdsAndOtherDocuments) {
    EXPECT_THROW(readMultistatus(
                     R"(<?xml version="1.0"?><!DOCTYPE m [<!ENTITY e SYSTEM "file:///etc/passwd">]>
<multistatus xmlns="DAV:"><response><href>&e;</href></response></multistatus>)"),
                 CloudError);
    EXPECT_THROW(
        readMultistatus(
            R"(<?xml version="1.0"?><!DOCTYPE m [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;">]>
<multistatus xmlns="DAV:"><response><href>&b;</href></response></multistatus>)"),
        CloudError);
    EXPECT_THROW(readMultistatus("<multistatus xmlns=\"urn:other\"/>"), CloudError);
    EXPECT_THROW(readMultistatus("<html><body>Not WebDAV"), CloudError);
    EXPECT_THROW(readMultistatus(""), CloudError);
    EXPECT_EQ(statusCodeOf("HTTP/1.1 207 Multi-Status"), 207);
    EXPECT_EQ(statusCodeOf("HTTP/1.1 2"), 0);
    EXPECT_EQ(statusCodeOf("garbage 200"), 0);
}

TEST(Urls, HrefsResolveAndZoneNamesDecode) {
    const std::string base = "http://127.0.0.1:5232/alice/";
    EXPECT_EQ(Url::resolve(base, "/alice/cal/"), "http://127.0.0.1:5232/alice/cal/");
    EXPECT_EQ(Url::resolve(base, "cal/"), "http://127.0.0.1:5232/alice/cal/");
    EXPECT_EQ(Url::resolve(base, "http%3A//127.0.0.1%3A5298/user/calendars/c/"),
              "http://127.0.0.1:5298/user/calendars/c/");
    EXPECT_EQ(lastSegment("http://h/alice/My%20Cal%2Fx/"), "My Cal/x");
    EXPECT_EQ(lastSegment("/a/com.vostrel.almanor.zone"), "com.vostrel.almanor.zone");
    EXPECT_EQ(percentEncodeSegment("a b/é"), "a%20b%2F%C3%A9");
    EXPECT_TRUE(Url::parse("http://localhost:1/").isLoopback());
    EXPECT_TRUE(Url::parse("http://[::1]:1/").isLoopback());
    EXPECT_FALSE(Url::parse("http://127.example.com/").isLoopback());
    EXPECT_THROW(Url::parse("ftp://h/"), CloudError);
    EXPECT_THROW(Url::parse("https://bob:pw@h/"), CloudError);
    // Plain http leaves this machine never.
    EXPECT_THROW(HttpClient("http://example.com/", "u", nullptr, {}), CloudError);
    EXPECT_NO_THROW(HttpClient("https://example.com/", "u", nullptr, {}));
}

} // namespace
} // namespace almanor::caldav
