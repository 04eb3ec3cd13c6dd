#include "cloud/caldav/Multistatus.h"

#include "cloud/CloudService.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <memory>
#include <mutex>

namespace almanor::caldav {

namespace {

struct DocDeleter {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using DocPtr = std::unique_ptr<xmlDoc, DocDeleter>;

struct XmlCharDeleter {
    void operator()(xmlChar* text) const { xmlFree(text); }
};

// No document a server sends may make the parser open anything.
xmlParserInputPtr denyExternalEntity(const char*, const char*, xmlParserCtxtPtr) {
    return nullptr;
}

void hardenOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        xmlInitParser();
        xmlSetExternalEntityLoader(denyExternalEntity);
    });
}

// The one place that turns libxml2's failure into an error.
[[noreturn]] void failXml(const char* what) {
    std::string message = std::string("unreadable answer from the server: ") + what;
    if (const xmlError* error = xmlGetLastError(); error != nullptr && error->message != nullptr) {
        std::string detail = error->message;
        while (!detail.empty() && (detail.back() == '\n' || detail.back() == ' '))
            detail.pop_back();
        message += " (" + detail + ")";
    }
    xmlResetLastError();
    throw CloudError(message);
}

std::string_view text(const xmlChar* s) {
    return s ? std::string_view(reinterpret_cast<const char*>(s)) : std::string_view();
}

bool is(const xmlNode* node, std::string_view ns, std::string_view local) {
    return node->type == XML_ELEMENT_NODE && node->ns != nullptr && text(node->ns->href) == ns &&
           text(node->name) == local;
}

XmlName nameOf(const xmlNode* node) {
    return XmlName{std::string(node->ns ? text(node->ns->href) : std::string_view()),
                   std::string(text(node->name))};
}

std::string contentOf(const xmlNode* node) {
    std::unique_ptr<xmlChar, XmlCharDeleter> content(xmlNodeGetContent(node));
    return std::string(text(content.get()));
}

std::string trimmed(std::string s) {
    auto notSpace = [](unsigned char c) { return !std::isspace(c); };
    s.erase(s.begin(), std::find_if(s.begin(), s.end(), notSpace));
    s.erase(std::find_if(s.rbegin(), s.rend(), notSpace).base(), s.end());
    return s;
}

template <typename F> void forChildren(const xmlNode* node, F f) {
    for (const xmlNode* child = node->children; child != nullptr; child = child->next)
        if (child->type == XML_ELEMENT_NODE)
            f(child);
}

DavProperty readProperty(const xmlNode* node) {
    DavProperty property;
    property.name = nameOf(node);
    property.text = contentOf(node);
    forChildren(node, [&](const xmlNode* child) {
        property.children.push_back(nameOf(child));
        if (is(child, davNs, "href"))
            property.hrefs.push_back(trimmed(contentOf(child)));
        std::unique_ptr<xmlChar, XmlCharDeleter> attr(
            xmlGetProp(child, reinterpret_cast<const xmlChar*>("name")));
        if (attr)
            property.childNameAttributes.emplace_back(text(attr.get()));
    });
    return property;
}

DavResponse readResponse(const xmlNode* node) {
    DavResponse response;
    forChildren(node, [&](const xmlNode* child) {
        if (is(child, davNs, "href")) {
            if (response.href.empty())
                response.href = trimmed(contentOf(child));
        } else if (is(child, davNs, "status")) {
            response.status = statusCodeOf(trimmed(contentOf(child)));
        } else if (is(child, davNs, "error")) {
            forChildren(child, [&](const xmlNode* e) { response.errors.push_back(nameOf(e)); });
        } else if (is(child, davNs, "propstat")) {
            DavPropstat propstat;
            forChildren(child, [&](const xmlNode* p) {
                if (is(p, davNs, "status"))
                    propstat.status = statusCodeOf(trimmed(contentOf(p)));
                else if (is(p, davNs, "prop"))
                    forChildren(p, [&](const xmlNode* q) {
                        propstat.properties.push_back(readProperty(q));
                    });
                else if (is(p, davNs, "error"))
                    forChildren(p, [&](const xmlNode* e) { response.errors.push_back(nameOf(e)); });
            });
            response.propstats.push_back(std::move(propstat));
        }
    });
    return response;
}

} // namespace

int statusCodeOf(std::string_view line) {
    // "HTTP/1.1 200 OK": the number after the first space.
    auto space = line.find(' ');
    if (line.substr(0, 5) != "HTTP/" || space == std::string_view::npos)
        return 0;
    std::string_view rest = line.substr(space + 1);
    int code = 0;
    auto [end, ec] =
        std::from_chars(rest.data(), rest.data() + std::min<std::size_t>(rest.size(), 3), code);
    if (ec != std::errc() || end != rest.data() + 3 || code < 100 || code > 599)
        return 0;
    return code;
}

const DavProperty* DavResponse::property(std::string_view ns, std::string_view local) const {
    for (const auto& propstat : propstats) {
        if (propstat.status < 200 || propstat.status > 299)
            continue;
        for (const auto& p : propstat.properties)
            if (p.name.ns == ns && p.name.local == local)
                return &p;
    }
    return nullptr;
}

int DavResponse::effectiveStatus() const {
    if (status != 0)
        return status;
    int worst = 0;
    for (const auto& p : propstats)
        worst = std::max(worst, p.status);
    return worst;
}

std::vector<DavResponse> readMultistatus(std::string_view body) {
    hardenOnce();
    if (body.size() > std::size_t(INT_MAX))
        throw CloudError("unreadable answer from the server: too large");
    xmlResetLastError();
    const int options =
        XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOCDATA;
    DocPtr doc(xmlReadMemory(body.data(), int(body.size()), "multistatus.xml", nullptr, options));
    if (!doc)
        failXml("not well-formed XML");
    // Entities could only come from a DTD; refusing any DTD keeps expansion attacks out.
    if (doc->intSubset != nullptr || doc->extSubset != nullptr)
        throw CloudError("unreadable answer from the server: a DTD in a multistatus");
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr || !is(root, davNs, "multistatus"))
        throw CloudError("unreadable answer from the server: not a WebDAV multistatus");
    std::vector<DavResponse> responses;
    forChildren(root, [&](const xmlNode* child) {
        if (is(child, davNs, "response"))
            responses.push_back(readResponse(child));
    });
    return responses;
}

} // namespace almanor::caldav
