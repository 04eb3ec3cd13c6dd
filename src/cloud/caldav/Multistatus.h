#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace almanor::caldav {

// An XML element's identity: namespace URI and local name (never the document's prefix).
struct XmlName {
    std::string ns;
    std::string local;

    friend bool operator==(const XmlName&, const XmlName&) = default;
};

inline constexpr std::string_view davNs = "DAV:";
inline constexpr std::string_view calDavNs = "urn:ietf:params:xml:ns:caldav";

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

    // The property with a 2xx status, or null.
    const DavProperty* property(std::string_view ns, std::string_view local) const;
    // The response's status, or else the worst status of its propstats.
    int effectiveStatus() const;
};

// Reads a WebDAV multistatus body. The parser never loads the network, external entities or a
// DTD; a document with a DTD, one that is not well formed or whose root is not DAV:multistatus
// is refused. Throws CloudError.
std::vector<DavResponse> readMultistatus(std::string_view body);

// "HTTP/1.1 404 Not Found" -> 404; 0 for anything else.
int statusCodeOf(std::string_view statusLine);

} // namespace almanor::caldav
