// Server answers are untrusted: the multistatus and iCalendar readers must refuse or read any
// input without crashing.
#include "cloud/CloudService.h"
#include "cloud/caldav/Multistatus.h"
#include "cloud/caldav/RecordCalendar.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    try {
        for (const auto& r : almanor::caldav::readMultistatus(input)) {
            (void)r.effectiveStatus();
            (void)r.property(almanor::caldav::calDavNs, "calendar-data");
        }
    } catch (const almanor::CloudError&) {
    }
    try {
        (void)almanor::caldav::readRecordCalendar(input, "CD_Event", "zone");
    } catch (const almanor::CloudError&) {
    }
    return 0;
}
