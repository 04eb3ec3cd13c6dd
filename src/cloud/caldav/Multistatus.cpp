#include "cloud/caldav/Multistatus.h"

#include "cloud/CloudService.h"
#include "model/Text.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <exception>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <mutex>

namespace almanor::caldav {

namespace {

struct ParserDeleter {
    void operator()(xmlParserCtxt* ctxt) const { xmlFreeParserCtxt(ctxt); }
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

std::string_view text(const xmlChar* s) {
    return s ? std::string_view(reinterpret_cast<const char*>(s)) : std::string_view();
}

// An href or a status line longer than this is no address the adapter could use.
constexpr std::size_t maxShortText = 8192;

} // namespace

struct MultistatusReader::State {
    Handler handler;
    MultistatusLimits limits;
    std::unique_ptr<xmlParserCtxt, ParserDeleter> ctxt;
    std::string failure;  // why the reader stopped the parser
    std::string xmlError; // libxml2's first complaint
    std::exception_ptr handlerError;
    std::string syncToken;

    int depth = 0;
    std::size_t responses = 0;
    bool inResponse = false;
    bool inPropstat = false;
    bool inProp = false;
    bool inResponseError = false;
    bool inPropstatError = false;
    int propertyDepth = 0; // where the current property began; 0 outside one
    bool inPropertyHref = false;
    std::size_t responseBytes = 0;
    std::size_t responseElements = 0;
    DavResponse response;
    DavPropstat propstat;
    DavProperty property;
    std::string shortText; // href, status or sync-token being read; empty when too long
    bool collectingShort = false;
    bool shortTooLong = false;
    std::string propertyHref;

    void stop(std::string why) {
        if (failure.empty())
            failure = std::move(why);
        xmlStopParser(ctxt.get());
    }

    void dropResponseParts() {
        response.oversized = true;
        response.propstats = {};
        response.errors = {};
        propstat = {};
        property = {};
        propertyDepth = 0;
        inPropertyHref = false;
    }

    void startShort() {
        shortText.clear();
        collectingShort = true;
        shortTooLong = false;
    }

    // An element opens: what it means depends on how deep it is.
    void start(const XmlName& name, const xmlChar** attributes, int attributeCount) {
        ++depth;
        if (depth > limits.depth)
            return stop("elements nested too deeply");
        const bool dav = name.ns == davNs;
        if (depth <= 2)
            return startOutsideResponses(name, dav);
        if (!inResponse)
            return;
        if (++responseElements > limits.responseElements && !response.oversized)
            dropResponseParts();
        if (depth == 3)
            return startResponsePart(name, dav);
        if (response.oversized)
            return;
        if (depth == 4)
            return startPropstatPart(name, dav);
        if (depth == 5)
            return startProperty(name);
        if (depth == 6 && propertyDepth == 5)
            startPropertyChild(name, dav, attributes, attributeCount);
    }

    // The multistatus itself, and its responses and sync token.
    void startOutsideResponses(const XmlName& name, bool dav) {
        if (depth == 1) {
            if (!dav || name.local != "multistatus")
                stop("not a WebDAV multistatus");
            return;
        }
        if (dav && name.local == "response") {
            if (++responses > limits.responses)
                return stop("more than " + std::to_string(limits.responses) + " responses");
            inResponse = true;
            response = {};
            responseBytes = 0;
            responseElements = 0;
        } else if (dav && name.local == "sync-token") {
            startShort();
        }
    }

    // A response's href, status, propstat or error.
    void startResponsePart(const XmlName& name, bool dav) {
        if (dav && (name.local == "href" || name.local == "status"))
            startShort();
        else if (dav && name.local == "propstat")
            inPropstat = true, propstat = {};
        else if (dav && name.local == "error")
            inResponseError = true;
    }

    // A propstat's status, prop or error; or a condition in a response's error.
    void startPropstatPart(const XmlName& name, bool dav) {
        if (inResponseError)
            response.errors.push_back(name);
        else if (inPropstat && dav && name.local == "status")
            startShort();
        else if (inPropstat && dav && name.local == "prop")
            inProp = true;
        else if (inPropstat && dav && name.local == "error")
            inPropstatError = true;
    }

    // A property in a prop, or a condition in a propstat's error.
    void startProperty(const XmlName& name) {
        if (inPropstatError) {
            response.errors.push_back(name);
        } else if (inProp) {
            property = {};
            property.name = name;
            propertyDepth = depth;
        }
    }

    // An element in a property's value: its name, its name attribute and, for an href, its text.
    void startPropertyChild(const XmlName& name, bool dav, const xmlChar** attributes,
                            int attributeCount) {
        property.children.push_back(name);
        for (int i = 0; i < attributeCount; ++i) {
            const xmlChar** a =
                attributes + std::ptrdiff_t{5} * i; // local name, prefix, URI, value, end
            if (text(a[0]) == "name" && a[2] == nullptr)
                property.childNameAttributes.emplace_back(reinterpret_cast<const char*>(a[3]),
                                                          std::size_t(a[4] - a[3]));
        }
        if (dav && name.local == "href") {
            inPropertyHref = true;
            propertyHref.clear();
        }
    }

    void characters(std::string_view chunk) {
        if (inResponse && (responseBytes += chunk.size()) > limits.responseBytes &&
            !response.oversized)
            dropResponseParts();
        if (collectingShort && !shortTooLong) {
            shortTooLong = shortText.size() + chunk.size() > maxShortText;
            if (shortTooLong)
                shortText.clear();
            else
                shortText.append(chunk);
        }
        if (propertyDepth != 0 && !response.oversized) {
            property.text.append(chunk);
            if (inPropertyHref)
                propertyHref.append(chunk);
        }
    }

    void end(const XmlName& name) {
        const int at = depth--;
        const bool dav = name.ns == davNs;
        const bool shortEnds = collectingShort && dav;
        if (at == 2 && inResponse && dav && name.local == "response") {
            inResponse = false;
            handler(std::move(response));
            response = {};
        } else if (at == 2 && shortEnds && name.local == "sync-token") {
            syncToken = trimmed(shortText);
        } else if (at == 3 && inResponse) {
            if (shortEnds && name.local == "href" && response.href.empty())
                response.href = trimmed(shortText);
            else if (shortEnds && name.local == "status")
                response.status = statusCodeOf(trimmed(shortText));
            else if (dav && name.local == "propstat" && inPropstat) {
                inPropstat = false;
                if (!response.oversized)
                    response.propstats.push_back(std::move(propstat));
                propstat = {};
            } else if (dav && name.local == "error")
                inResponseError = false;
        } else if (at == 4 && inPropstat) {
            if (shortEnds && name.local == "status")
                propstat.status = statusCodeOf(trimmed(shortText));
            else if (dav && name.local == "prop")
                inProp = false;
            else if (dav && name.local == "error")
                inPropstatError = false;
        } else if (at == 5 && propertyDepth == 5) {
            propertyDepth = 0;
            if (!response.oversized)
                propstat.properties.push_back(std::move(property));
            property = {};
        } else if (at == 6 && inPropertyHref) {
            inPropertyHref = false;
            property.hrefs.push_back(trimmed(propertyHref));
        }
        if (at <= 4)
            collectingShort = false;
    }
};

namespace {

MultistatusReader::State& stateOf(void* ctx) {
    return *static_cast<MultistatusReader::State*>(ctx);
}

// Exceptions must not cross libxml2's C frames: the first one stops the parser and is kept.
template <typename F> void guarded(void* ctx, F f) {
    auto& s = stateOf(ctx);
    try {
        f(s);
    } catch (...) {
        if (!s.handlerError)
            s.handlerError = std::current_exception();
        xmlStopParser(s.ctxt.get());
    }
}

void onStart(void* ctx, const xmlChar* local, const xmlChar*, const xmlChar* uri, int,
             const xmlChar**, int attributeCount, int, const xmlChar** attributes) {
    guarded(ctx, [&](MultistatusReader::State& s) {
        s.start(XmlName{std::string(text(uri)), std::string(text(local))}, attributes,
                attributeCount);
    });
}

void onEnd(void* ctx, const xmlChar* local, const xmlChar*, const xmlChar* uri) {
    guarded(ctx, [&](MultistatusReader::State& s) {
        s.end(XmlName{std::string(text(uri)), std::string(text(local))});
    });
}

void onCharacters(void* ctx, const xmlChar* chars, int length) {
    guarded(ctx, [&](MultistatusReader::State& s) {
        s.characters(std::string_view(reinterpret_cast<const char*>(chars), std::size_t(length)));
    });
}

// Entities could only come from a DTD; refusing any DTD keeps expansion attacks out.
void onDtd(void* ctx, const xmlChar*, const xmlChar*, const xmlChar*) {
    stateOf(ctx).stop("a DTD in a multistatus");
}

void onEntityDeclaration(void* ctx, const xmlChar*, int, const xmlChar*, const xmlChar*, xmlChar*) {
    stateOf(ctx).stop("an entity declaration in a multistatus");
}

xmlEntityPtr noEntity(void*, const xmlChar*) {
    return nullptr;
}

void onError(void* ctx, xmlErrorPtr error) {
    auto& s = stateOf(ctx);
    if (error == nullptr || error->level < XML_ERR_ERROR || !s.xmlError.empty())
        return;
    std::string message = error->message ? error->message : "malformed";
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
        message.pop_back();
    s.xmlError = message.empty() ? "malformed" : message;
}

} // namespace

MultistatusReader::MultistatusReader(Handler handler, MultistatusLimits limits)
    : state_(std::make_unique<State>()) {
    hardenOnce();
    state_->handler = std::move(handler);
    state_->limits = limits;
    xmlSAXHandler sax{};
    sax.initialized = XML_SAX2_MAGIC;
    sax.startElementNs = onStart;
    sax.endElementNs = onEnd;
    sax.characters = onCharacters;
    sax.cdataBlock = onCharacters;
    sax.internalSubset = onDtd;
    sax.externalSubset = onDtd;
    sax.entityDecl = onEntityDeclaration;
    sax.getEntity = noEntity;
    sax.getParameterEntity = noEntity;
    sax.serror = onError;
    state_->ctxt.reset(xmlCreatePushParserCtxt(&sax, state_.get(), nullptr, 0, "multistatus.xml"));
    if (!state_->ctxt)
        throw CloudError("out of memory");
    xmlCtxtUseOptions(state_->ctxt.get(), XML_PARSE_NONET | XML_PARSE_NOCDATA);
}

MultistatusReader::~MultistatusReader() = default;

namespace {

void check(MultistatusReader::State& s, int rc) {
    if (s.handlerError)
        std::rethrow_exception(s.handlerError);
    if (!s.failure.empty())
        throw UnreadableAnswer("unreadable answer from the server: " + s.failure);
    if (rc != 0 || !s.ctxt->wellFormed)
        throw UnreadableAnswer("unreadable answer from the server: not well-formed XML" +
                               (s.xmlError.empty() ? std::string() : " (" + s.xmlError + ")"));
}

} // namespace

void MultistatusReader::feed(std::string_view chunk) {
    check(*state_, 0);
    // libxml2 takes an int: big chunks go in pieces.
    constexpr std::size_t piece = std::size_t(1) << 20;
    for (std::size_t at = 0; at < chunk.size(); at += piece) {
        std::size_t n = std::min(piece, chunk.size() - at);
        check(*state_, xmlParseChunk(state_->ctxt.get(), chunk.data() + at, int(n), 0));
    }
}

void MultistatusReader::finish() {
    check(*state_, 0);
    check(*state_, xmlParseChunk(state_->ctxt.get(), nullptr, 0, 1));
    if (state_->depth != 0 || state_->ctxt->nameNr != 0)
        throw UnreadableAnswer("unreadable answer from the server: the document ends early");
}

const std::string& MultistatusReader::syncToken() const {
    return state_->syncToken;
}

std::vector<DavResponse> readMultistatus(std::string_view body) {
    std::vector<DavResponse> responses;
    MultistatusReader reader([&](DavResponse&& r) { responses.push_back(std::move(r)); });
    reader.feed(body);
    reader.finish();
    return responses;
}

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

} // namespace almanor::caldav
