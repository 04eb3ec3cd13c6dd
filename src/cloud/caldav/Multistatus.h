#pragma once

#include "cloud/CloudService.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace almanor::caldav {

// An answer that could not be read: not the document expected, malformed, or past a limit.
class UnreadableAnswer : public CloudError {
  public:
    using CloudError::CloudError;
};

// An XML element's identity: namespace URI and local name (never the document's prefix).
struct XmlName {
    std::string ns;
    std::string local;

    friend bool operator==(const XmlName&, const XmlName&) = default;
};

inline constexpr std::string_view davNs = "DAV:";
inline constexpr std::string_view calDavNs = "urn:ietf:params:xml:ns:caldav";
inline constexpr std::string_view calendarServerNs = "http://calendarserver.org/ns/";

// One property of a propstat: its text (for displayname, getetag, calendar-data), the hrefs it
// holds (current-user-principal, calendar-home-set) and its child elements' names
// (resourcetype, supported-calendar-component-set).
struct DavProperty {
    XmlName name;
    std::string text;
    std::vector<std::string> hrefs;
    std::vector<XmlName> children;
    std::vector<std::string> childNameAttributes; // comp name="VEVENT"
};

struct DavPropstat {
    int status = 0;
    std::vector<DavProperty> properties;
};

struct DavResponse {
    std::string href;
    int status = 0; // the response's own status, 0 when it reports per propstat
    std::vector<DavPropstat> propstats;
    std::vector<XmlName> errors; // children of <error>, e.g. resource-must-be-null
    // Its properties went past the reader's limits and were dropped; href and status remain.
    bool oversized = false;

    // The property with a 2xx status, or null.
    const DavProperty* property(std::string_view ns, std::string_view local) const;
    // The response's status, or else the worst status of its propstats.
    int effectiveStatus() const;
};

// What one answer may hold before it is refused or its parts dropped. Memory stays within one
// response's share however long the answer is.
struct MultistatusLimits {
    std::size_t responseBytes = std::size_t(4) << 20; // text kept for one response
    std::size_t responseElements = 10000;             // elements within one response
    std::size_t responses = 300000;                   // responses in one answer
    int depth = 32;                                   // nesting of elements
};

// Reads a WebDAV multistatus body as it arrives, handing over each response as soon as it is
// complete. The parser never loads the network, external entities or a DTD; a document with a
// DTD, one that is not well formed, nested too deeply, holding too many responses, or whose root
// is not DAV:multistatus is refused (CloudError from feed() or finish()). A response past the
// per-response limits comes `oversized`.
class MultistatusReader {
  public:
    using Handler = std::function<void(DavResponse&&)>;

    explicit MultistatusReader(Handler handler, MultistatusLimits limits = {});
    ~MultistatusReader();
    MultistatusReader(const MultistatusReader&) = delete;
    MultistatusReader& operator=(const MultistatusReader&) = delete;

    void feed(std::string_view chunk);
    // The end of the body: throws when the document is incomplete.
    void finish();
    // The multistatus's own sync-token (RFC 6578), empty when it has none.
    const std::string& syncToken() const;

    struct State;

  private:
    std::unique_ptr<State> state_;
};

// Reads a whole multistatus body (see MultistatusReader). Throws CloudError.
std::vector<DavResponse> readMultistatus(std::string_view body);

// "HTTP/1.1 404 Not Found" -> 404; 0 for anything else.
int statusCodeOf(std::string_view statusLine);

} // namespace almanor::caldav
