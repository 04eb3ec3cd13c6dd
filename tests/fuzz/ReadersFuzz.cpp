// Server answers are untrusted: the multistatus and iCalendar readers must refuse or read any
// input without crashing, and the multistatus reader must read the same however the answer is
// cut into pieces on its way.
#include "cloud/CloudService.h"
#include "cloud/caldav/Multistatus.h"
#include "cloud/caldav/RecordCalendar.h"
#include "platform/UrlText.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

using almanor::caldav::DavResponse;
using almanor::caldav::MultistatusLimits;
using almanor::caldav::MultistatusReader;

// What a reading kept, to compare two readings of one input; `ok` false when it was refused.
struct Summary {
    bool ok = false;
    std::vector<std::string> seen;
    std::string token;
};

Summary read(std::string_view input, std::size_t piece, const MultistatusLimits& limits) {
    Summary summary;
    try {
        MultistatusReader reader(
            [&](DavResponse&& r) {
                std::string line = r.href + " " + std::to_string(r.effectiveStatus()) +
                                   (r.oversized ? " oversized" : "");
                for (const auto& p : r.propstats)
                    for (const auto& q : p.properties)
                        line += " " + q.name.local + "=" + q.text + "#" +
                                std::to_string(q.hrefs.size());
                summary.seen.push_back(line);
                if (const auto* data = r.property(almanor::caldav::calDavNs, "calendar-data")) {
                    try {
                        (void)almanor::caldav::readRecordCalendar(data->text, "CD_Event", "zone");
                    } catch (const almanor::CloudError&) {
                    }
                }
            },
            limits);
        for (std::size_t at = 0; at < input.size(); at += piece)
            reader.feed(input.substr(at, piece));
        reader.finish();
        summary.token = reader.syncToken();
        summary.ok = true;
    } catch (const almanor::CloudError&) {
    }
    return summary;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t piece = size == 0 ? 1 : std::size_t(data[0] % 13) + 1;
    for (const MultistatusLimits& limits : {MultistatusLimits{}, MultistatusLimits{256, 8, 4, 6}}) {
        Summary whole = read(input, input.size() + 1, limits);
        Summary pieces = read(input, piece, limits);
        if (whole.ok && pieces.ok && (whole.seen != pieces.seen || whole.token != pieces.token))
            std::abort();
    }
    try {
        (void)almanor::caldav::readRecordCalendar(input, "CD_Event", "zone");
    } catch (const almanor::CloudError&) {
    }
    try {
        (void)almanor::caldav::readZoneResource(input, "CD_Event", "zone");
    } catch (const almanor::CloudError&) {
    }
    // An edit is written into whatever the server holds.
    try {
        almanor::CloudRecord record{"CD_Event", {"r", "zone"}, {}};
        record.fields["CD_name"] = std::string("n");
        record.fields["CD_date"] = almanor::Instant{std::chrono::hours(24 * 3)};
        record.fields["CD_recurring"] = std::int64_t{2};
        (void)almanor::caldav::mergeRecordCalendar(input, record, {});
    } catch (const almanor::CloudError&) {
    }
    (void)almanor::redactUrls(input);
    (void)almanor::redactUrl(input);
    return 0;
}
