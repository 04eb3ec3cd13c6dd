#include "cloud/caldav/CalDavService.h"

#include "cloud/RecordMapping.h"
#include "cloud/caldav/RecordCalendar.h"
#include "model/Text.h"
#include "platform/Translation.h"
#include "platform/UrlText.h"
#include "platform/Utf8.h"
#include "platform/XmlText.h"

#include <algorithm>
#include <chrono>
#include <set>

namespace almanor::caldav {

namespace {

const std::string xmlType = "Content-Type: application/xml; charset=utf-8";
const std::string calendarType = "Content-Type: text/calendar; charset=utf-8";

bool success(long status) {
    return status >= 200 && status <= 299;
}

// One line naming what was asked of which server (its origin, never user information).
[[noreturn]] void failStatus(const std::string& what, const std::string& url,
                             const HttpResponse& response) {
    std::string server = url;
    try {
        server = Url::parse(url).origin();
    } catch (const CloudError&) {
        server = redactUrl(url);
    }
    if (response.status == 401)
        throw CloudError(
            formatText(_("the server at %s refused the user name or password"), {server}));
    if (response.status == 403)
        throw CloudError(
            formatText(_("%s: access refused by the server at %s (403)"), {what, server}));
    throw CloudError(formatText(_("%s: the server at %s answered %d"),
                                {what, server, std::to_string(response.status)}));
}

std::string pathOf(const std::string& url) {
    try {
        return percentDecode(Url::parse(url).path);
    } catch (const CloudError&) {
        return url;
    }
}

bool samePath(const std::string& a, const std::string& b) {
    auto trim = [](std::string p) {
        while (p.size() > 1 && p.back() == '/')
            p.pop_back();
        return p;
    };
    return trim(pathOf(a)) == trim(pathOf(b));
}

bool contains(const std::vector<XmlName>& names, std::string_view ns, std::string_view local) {
    return std::any_of(names.begin(), names.end(),
                       [&](const XmlName& n) { return n.ns == ns && n.local == local; });
}

bool moved(long status) {
    return status == 301 || status == 302 || status == 307 || status == 308;
}

// The name of a resource directly inside `collection` that `href` names; empty for anything else
// (the collection itself, a resource elsewhere).
std::string childName(const std::string& collection, const std::string& href) {
    if (href.empty())
        return {};
    std::string path;
    try {
        path = pathOf(Url::resolve(collection, href));
    } catch (const CloudError&) {
        return {};
    }
    std::string base = pathOf(collection);
    if (base.empty() || base.back() != '/')
        base += '/';
    if (path.size() <= base.size() || path.compare(0, base.size(), base) != 0)
        return {};
    std::string rest = path.substr(base.size());
    if (rest.find('/') != std::string::npos)
        return {};
    return rest;
}

// A resource name that names no event of the collection (none, the collection itself or another
// place, a name no server keeps) is refused before anything is sent.
void checkResource(const std::string& resource, const std::string& what) {
    std::string why;
    if (resource.empty() || resource == ".ics")
        why = "no name";
    else if (resource == "." || resource == "..")
        why = "a folder's name";
    else if (resource.find('/') != std::string::npos)
        why = "a name with \"/\"";
    else if (!utf8::isValid(resource))
        why = "a name that is not UTF-8";
    for (std::string_view rest = resource; why.empty() && !rest.empty();) {
        const utf8::Character c = utf8::decodeFirst(rest);
        if (c.codePoint < 0x20 || (c.codePoint >= 0x7F && c.codePoint < 0xA0))
            why = "a name with a control character";
        rest.remove_prefix(c.length);
    }
    if (!why.empty())
        throw CloudError(what + ": the resource has " + why + "; nothing was sent");
}

// Whether two entity tags name one version, however each answer spelt it (weak or not, quoted or
// not): the If-Match that follows is the server's own word.
bool sameTag(std::string_view a, std::string_view b) {
    auto bare = [](std::string_view given) {
        std::string tag = trimmed(given);
        if (tag.rfind("W/", 0) == 0)
            tag.erase(0, 2);
        if (tag.size() >= 2 && tag.front() == '"' && tag.back() == '"')
            tag = tag.substr(1, tag.size() - 2);
        return tag;
    };
    return bare(a) == bare(b);
}

constexpr std::string_view syncPrefix = "sync:";
constexpr std::string_view ctagPrefix = "ctag:";

std::string withSlash(std::string url) {
    if (url.empty() || url.back() != '/')
        url += '/';
    return url;
}

} // namespace

CalDavService::CalDavService(std::string server, std::string user, PasswordSource password,
                             Limits limits)
    : server_(std::move(server)), password_(std::move(password)) {
    if (!server_.empty()) {
        // The password is asked for once per service, when the first request needs it; a
        // source that failed (a password command that hung) is not asked again either.
        struct Cache {
            std::mutex mutex;
            bool asked = false;
            std::string password;
            std::string failure;
        };
        auto cache = std::make_shared<Cache>();
        PasswordSource source = [source = password_, cache] {
            std::lock_guard guard(cache->mutex);
            if (!cache->asked) {
                cache->asked = true;
                try {
                    cache->password = source ? source() : std::string();
                } catch (const CloudError& e) {
                    cache->failure = e.what();
                }
            }
            if (!cache->failure.empty())
                throw CloudError(cache->failure);
            return cache->password;
        };
        password_ = source;
        try {
            client_.emplace(server_, std::move(user), std::move(source), limits);
        } catch (const CloudError& e) {
            setupError_ = e.what(); // reported by every request, the status request included
        }
    }
}

CalDavService::~CalDavService() = default;

const HttpClient& CalDavService::client() const {
    if (!setupError_.empty())
        throw CloudError(setupError_);
    if (!client_)
        throw CloudError(_("no cloud account"));
    return *client_;
}

HttpResponse CalDavService::send(const HttpRequest& request) const {
    const HttpClient& http = client();
    ++requests_;
    HttpResponse response = http.perform(request);
    if (response.status == 401 && refusedListener_)
        refusedListener_();
    return response;
}

HttpResponse CalDavService::sendReading(HttpRequest request,
                                        const std::function<void(DavResponse&&)>& each,
                                        std::string* syncToken) const {
    MultistatusReader reader(each);
    request.stream = [&reader](std::string_view chunk) { reader.feed(chunk); };
    HttpResponse r = send(request);
    if (r.status == 207) {
        try {
            reader.finish();
        } catch (const CloudError& e) {
            throw UnreadableAnswer(request.method + " " + redactUrl(request.url) + ": " + e.what());
        }
        if (syncToken)
            *syncToken = reader.syncToken();
    }
    return r;
}

HttpResponse CalDavService::propfind(const std::string& url, int depth, const std::string& props,
                                     const std::function<void(DavResponse&&)>& each,
                                     bool slowToStart) const {
    HttpRequest request{"PROPFIND",
                        url,
                        {xmlType, "Depth: " + std::to_string(depth)},
                        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                        "<d:propfind xmlns:d=\"DAV:\" xmlns:c=\"urn:ietf:params:xml:ns:caldav\" "
                        "xmlns:cs=\"http://calendarserver.org/ns/\"><d:prop>" +
                            props + "</d:prop></d:propfind>"};
    request.slowToStart = slowToStart;
    return sendReading(std::move(request), each);
}

void CalDavService::trustOrigins(const std::vector<std::string>& origins) {
    if (client_)
        for (const auto& origin : origins)
            client_->trustOrigin(origin);
}

void CalDavService::rememberHome(const std::string& home) {
    std::lock_guard lock(mutex_);
    if (!home.empty())
        home_ = withSlash(home);
}

void CalDavService::setHomeListener(HomeListener listener) {
    std::lock_guard lock(mutex_);
    listener_ = std::move(listener);
}

std::vector<std::string> CalDavService::trustedOrigins() const {
    return client_ ? client_->trustedOrigins() : std::vector<std::string>{};
}

AccountStatus CalDavService::accountStatus() {
    if (server_.empty())
        return AccountStatus::noAccount;
    if (!setupError_.empty())
        throw CloudError(setupError_);
    password_(); // throws with the reason when it cannot be read
    return AccountStatus::available;
}

namespace {

std::string firstHref(const DavResponse& a, std::string_view ns, std::string_view local) {
    const auto* p = a.property(ns, local);
    return p && !p->hrefs.empty() ? p->hrefs.front() : std::string();
}

// `href` as named in an answer from `answeredBy`. Credentials go to another origin only when the
// configured server itself names it.
std::string named(const HttpClient& http, const std::string& answeredBy, const std::string& href) {
    if (Url::parse(answeredBy).origin() == Url::parse(http.server()).origin())
        http.trustOrigin(href);
    return href;
}

} // namespace

// What one PROPFIND of discovery learnt.
struct CalDavService::Probe {
    enum class Outcome { answered, moved, notHere } outcome;
    std::string next;      // moved: where to ask instead
    std::string principal; // answered: the principal, when the answer named one
    std::string problem;   // notHere: why, for the user
};

CalDavService::Probe CalDavService::probe(const HttpClient& http, const std::string& candidate,
                                          const std::string& shown) {
    std::string home;
    std::string principal;
    HttpResponse r;
    try {
        r = propfind(candidate, 0, "<d:current-user-principal/><c:calendar-home-set/>",
                     [&](DavResponse&& a) {
                         if (auto h = firstHref(a, calDavNs, "calendar-home-set"); !h.empty())
                             home = h;
                         if (auto p = firstHref(a, davNs, "current-user-principal"); !p.empty())
                             principal = p;
                     });
    } catch (const UnreadableAnswer& e) {
        return {Probe::Outcome::notHere,
                {},
                {},
                formatText(_("no CalDAV server at %s (%s)"), {shown, e.what()})};
    }
    if (r.status == 401)
        failStatus("PROPFIND", candidate, r);
    if (r.status >= 300 && r.status <= 399 && !r.location.empty())
        return {Probe::Outcome::moved, Url::resolve(candidate, r.location), {}, {}};
    if (r.status != 207)
        return {Probe::Outcome::notHere,
                {},
                {},
                formatText(_("no CalDAV server at %s (the server answered %d)"),
                           {shown, std::to_string(r.status)})};
    if (!home.empty()) {
        std::lock_guard lock(mutex_);
        home_ = withSlash(named(http, candidate, Url::resolve(candidate, home)));
    }
    if (!principal.empty())
        principal = named(http, candidate, Url::resolve(candidate, principal));
    return {Probe::Outcome::answered, {}, principal, {}};
}

std::string CalDavService::findPrincipal(const HttpClient& http) {
    const std::string& server = http.server();
    const std::string shown = redactUrl(server);
    std::string lastProblem = formatText(_("no CalDAV server at %s"), {shown});
    // The URL the user gave, then the well-known address (whose redirect is followed by hand so
    // that each hop passes the same checks).
    for (std::string candidate : {server, Url::parse(server).origin() + "/.well-known/caldav"}) {
        for (int hop = 0; hop < 5; ++hop) {
            Probe p = probe(http, candidate, shown);
            if (p.outcome == Probe::Outcome::moved) {
                candidate = p.next;
                continue;
            }
            if (p.outcome == Probe::Outcome::notHere)
                lastProblem = p.problem;
            else if (!p.principal.empty())
                return p.principal;
            break;
        }
    }
    throw CloudError(lastProblem);
}

// The addresses a principal names, resolved; home with its trailing slash.
struct CalDavService::PrincipalAddresses {
    std::string home;
    std::string inbox;           // where the default calendar is asked for, when not named
    std::string defaultCalendar; // none when the principal does not say
};

CalDavService::PrincipalAddresses CalDavService::principalAddresses(const HttpClient& http,
                                                                    const std::string& principal) {
    PrincipalAddresses given;
    HttpResponse r = propfind(
        principal, 0,
        "<c:calendar-home-set/><c:schedule-inbox-URL/><c:schedule-default-calendar-URL/>",
        [&](DavResponse&& a) {
            if (auto h = firstHref(a, calDavNs, "calendar-home-set"); !h.empty())
                given.home = h;
            if (auto i = firstHref(a, calDavNs, "schedule-inbox-URL"); !i.empty())
                given.inbox = i;
            if (auto d = firstHref(a, calDavNs, "schedule-default-calendar-URL"); !d.empty())
                given.defaultCalendar = d;
        });
    if (!success(r.status))
        failStatus("PROPFIND " + pathOf(principal), principal, r);
    if (given.home.empty())
        throw CloudError(formatText(_("no CalDAV calendar home for this user at %s"),
                                    {redactUrl(http.server())}));
    auto resolved = [&](const std::string& href) {
        return href.empty() ? std::string() : Url::resolve(principal, href);
    };
    return {withSlash(named(http, principal, Url::resolve(principal, given.home))),
            resolved(given.inbox), resolved(given.defaultCalendar)};
}

std::string CalDavService::discoverHome() {
    {
        std::lock_guard lock(mutex_);
        if (!home_.empty())
            return home_;
    }
    const HttpClient& http = client();
    const PrincipalAddresses found = principalAddresses(http, findPrincipal(http));
    HomeListener listener;
    {
        std::lock_guard lock(mutex_);
        home_ = found.home;
        principal_ = found.inbox;
        defaultCalendar_ = found.defaultCalendar;
        listener = listener_;
        discovered_ = true;
    }
    if (listener)
        listener(found.home, http.trustedOrigins());
    return found.home;
}

std::string CalDavService::home() {
    return discoverHome();
}

std::string CalDavService::zoneUrl(const std::string& zoneName) {
    if (zoneName == defaultZoneName)
        return defaultCalendarUrl();
    return home() + percentEncodeSegment(zoneName) + "/";
}

std::string CalDavService::defaultCalendarUrl() {
    std::string inbox;
    bool askPrincipal = false;
    {
        std::lock_guard lock(mutex_);
        if (!defaultCalendar_.empty())
            return withSlash(defaultCalendar_);
        inbox = principal_;
        // A remembered home says nothing of the default calendar: the principal does.
        askPrincipal = !discovered_;
        if (askPrincipal)
            home_.clear();
    }
    if (askPrincipal) {
        discoverHome();
        std::lock_guard lock(mutex_);
        if (!defaultCalendar_.empty())
            return withSlash(defaultCalendar_);
        inbox = principal_;
    }
    if (!inbox.empty()) {
        std::string named;
        HttpResponse r =
            propfind(inbox, 0, "<c:schedule-default-calendar-URL/>", [&](DavResponse&& a) {
                if (const auto* d = a.property(calDavNs, "schedule-default-calendar-URL");
                    d && !d->hrefs.empty())
                    named = d->hrefs.front();
            });
        if (r.status == 207 && !named.empty()) {
            std::lock_guard lock(mutex_);
            defaultCalendar_ = Url::resolve(inbox, named);
            return withSlash(defaultCalendar_);
        }
    }
    // Without a default named by the server, the first calendar of the home stands for it.
    for (const auto& zone : fetchAllZones()) {
        std::lock_guard lock(mutex_);
        defaultCalendar_ = zone.url;
        return withSlash(defaultCalendar_);
    }
    throw CloudError(_("the server has no default calendar for this user"));
}

void CalDavService::saveZone(const std::string& zoneName) {
    const std::string url = zoneUrl(zoneName);
    const std::string displayName = zoneName == appZoneName ? "Almanor" : zoneName;
    bool exists = false;
    bool failed = false;
    HttpResponse r = sendReading(
        {"MKCALENDAR",
         url,
         {xmlType},
         "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
         "<c:mkcalendar xmlns:d=\"DAV:\" xmlns:c=\"urn:ietf:params:xml:ns:caldav\"><d:set><d:prop>"
         "<d:displayname>" +
             xmlEscaped(displayName) +
             "</d:displayname>"
             "<c:supported-calendar-component-set><c:comp "
             "name=\"VEVENT\"/></c:supported-calendar-component-set>"
             "</d:prop></d:set></c:mkcalendar>"},
        [&](DavResponse&& a) {
            if (contains(a.errors, davNs, "resource-must-be-null") ||
                contains(a.errors, calDavNs, "resource-must-be-null"))
                exists = true;
            else if (!success(a.effectiveStatus()))
                failed = true;
        });
    if (success(r.status) && r.status != 207)
        return;
    // "It exists already", in each server's words: 405 (not allowed on an existing resource),
    // 409, or a multistatus whose error is resource-must-be-null.
    if (r.status == 405 || r.status == 409)
        return;
    if (r.status == 207 && (exists || !failed))
        return;
    failStatus(formatText(_("creating zone %s"), {zoneName}), url, r);
}

std::vector<RecordZone> CalDavService::fetchAllZones() {
    for (int round = 0;; ++round) {
        const std::string homeUrl = home();
        std::vector<RecordZone> zones;
        HttpResponse r =
            propfind(homeUrl, 1, "<d:resourcetype/><d:displayname/>", [&](DavResponse&& a) {
                const auto* type = a.property(davNs, "resourcetype");
                if (type == nullptr || !contains(type->children, calDavNs, "calendar") ||
                    a.href.empty())
                    return;
                std::string url = withSlash(Url::resolve(homeUrl, a.href));
                if (!samePath(url, homeUrl))
                    zones.push_back(RecordZone{lastSegment(url), url});
            });
        // A home remembered from an earlier login may have moved.
        if ((r.status == 404 || moved(r.status)) && round == 0 && rediscover())
            continue;
        if (r.status != 207)
            failStatus(_("listing the calendars"), homeUrl, r);
        return zones;
    }
}

bool CalDavService::exists(const std::string& url) {
    // Some servers answer for a missing resource with a multistatus whose only status is 404.
    bool found = false;
    HttpResponse r = propfind(url, 0, "<d:resourcetype/>", [&](DavResponse&& a) {
        if (a.effectiveStatus() != 404 && a.effectiveStatus() != 410)
            found = true;
    });
    if (r.status == 404 || r.status == 410 || moved(r.status))
        return false;
    if (r.status != 207)
        failStatus("PROPFIND", url, r);
    return found;
}

bool CalDavService::rediscover() {
    std::string before;
    {
        std::lock_guard lock(mutex_);
        if (rediscovered_)
            return false;
        rediscovered_ = true;
        before = home_;
        home_.clear();
        principal_.clear();
        defaultCalendar_.clear();
    }
    return discoverHome() != before;
}

template <typename Result, typename Attempt>
Result CalDavService::onCollection(const std::string& zoneName, Attempt attempt) {
    for (int round = 0;; ++round) {
        const std::string url = zoneUrl(zoneName);
        std::optional<Result> result = attempt(url);
        if (result)
            return std::move(*result);
        if (round == 0 && rediscover())
            continue;
        std::string message = "zone ";
        message.append(zoneName).append(" does not exist");
        try {
            const std::string origin = Url::parse(url).origin();
            message.append(" at ").append(origin);
        } catch (const CloudError&) {
        }
        throw ZoneMissing(message);
    }
}

std::vector<CloudRecord> CalDavService::performQuery(const std::string& recordType,
                                                     const std::string& zoneName) {
    const std::string head =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
        "<c:calendar-query xmlns:d=\"DAV:\" xmlns:c=\"urn:ietf:params:xml:ns:caldav\">"
        "<d:prop><d:getetag/><c:calendar-data/></d:prop><c:filter>"
        "<c:comp-filter name=\"VCALENDAR\"><c:comp-filter name=\"VEVENT\">";
    const std::string tail = "</c:comp-filter></c:comp-filter></c:filter></c:calendar-query>";
    const std::string typeFilter =
        "<c:prop-filter name=\"X-CD-RECORD-TYPE\"><c:text-match collation=\"i;octet\">" +
        xmlEscaped(recordType) + "</c:text-match></c:prop-filter>";
    // Each event is read as its response arrives: memory holds records, not the answer.
    std::vector<CloudRecord> records;
    auto each = [&](DavResponse&& a) {
        const auto* data = a.property(calDavNs, "calendar-data");
        if (data == nullptr)
            return;
        try {
            if (auto record = readRecordCalendar(data->text, recordType, zoneName))
                records.push_back(std::move(*record));
        } catch (const CloudError&) {
            // Not iCalendar: no record of ours, like the user's other events.
        }
    };
    return onCollection<std::vector<CloudRecord>>(
        zoneName, [&](const std::string& url) -> std::optional<std::vector<CloudRecord>> {
            records.clear();
            HttpResponse r =
                sendReading({"REPORT", url, {xmlType, "Depth: 1"}, head + typeFilter + tail}, each);
            // A server that cannot filter on the type is asked for every event; the reader
            // sorts them.
            if (r.status == 400 || r.status == 403 || r.status == 501)
                r = sendReading({"REPORT", url, {xmlType, "Depth: 1"}, head + tail}, each);
            if (r.status == 404 || moved(r.status))
                return std::nullopt;
            if (r.status != 207)
                failStatus(formatText(_("reading zone %s"), {zoneName}), url, r);
            return std::move(records);
        });
}

std::optional<ZoneChanges>
CalDavService::syncCollection(const std::string& url, const std::string& zoneName,
                              const std::string& token,
                              const std::map<std::string, std::string>& known, long& status) {
    ZoneChanges changes;
    std::map<std::string, std::string> wanted;
    std::set<std::string> present;
    std::set<std::string> gone;
    std::string next;
    HttpRequest report{"REPORT",
                       url,
                       {xmlType, "Depth: 1"},
                       "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                       "<d:sync-collection xmlns:d=\"DAV:\"><d:sync-token>" +
                           xmlEscaped(token) +
                           "</d:sync-token><d:sync-level>1</d:sync-level><d:prop><d:getetag/>"
                           "</d:prop></d:sync-collection>"};
    report.slowToStart = token.empty();
    HttpResponse r = sendReading(
        std::move(report),
        [&](DavResponse&& a) {
            std::string name = childName(url, a.href);
            if (name.empty())
                return;
            if (a.status == 404) {
                gone.insert(name);
                return;
            }
            const auto* tag = a.property(davNs, "getetag");
            if (tag == nullptr)
                return; // not a calendar object (a collection inside, say)
            present.insert(name);
            gone.erase(name);
            std::string etag = trimmed(tag->text);
            auto k = known.find(name);
            if (k == known.end() || k->second != etag)
                wanted[name] = etag;
        },
        &next);
    status = r.status;
    if (r.status != 207)
        return std::nullopt;
    changes.token = next.empty() ? std::string() : std::string(syncPrefix) + next;
    // Without a token the server listed the whole collection.
    changes.complete = token.empty();
    for (const auto& [name, etag] : known)
        if (gone.count(name) || (changes.complete && !present.count(name)))
            changes.deleted.push_back(name);
    fetchBodies(url, zoneName, wanted, known, changes);
    return changes;
}

std::optional<ZoneChanges>
CalDavService::listByTags(const std::string& url, const std::string& zoneName,
                          const std::string& ctag,
                          const std::map<std::string, std::string>& known) {
    std::string current;
    bool missing = false;
    HttpResponse r = propfind(url, 0, "<cs:getctag/>", [&](DavResponse&& a) {
        if (const auto* p = a.property(calendarServerNs, "getctag"))
            current = trimmed(p->text);
        if (a.status == 404)
            missing = true;
    });
    if (r.status == 404 || moved(r.status) || missing)
        return std::nullopt;
    if (r.status != 207)
        failStatus(formatText(_("reading zone %s"), {zoneName}), url, r);
    ZoneChanges changes;
    changes.token = current.empty() ? std::string() : std::string(ctagPrefix) + current;
    if (!current.empty() && current == ctag)
        return changes; // nothing changed since the last listing

    std::map<std::string, std::string> wanted;
    std::set<std::string> present;
    r = propfind(
        url, 1, "<d:getetag/>",
        [&](DavResponse&& a) {
            std::string name = childName(url, a.href);
            if (name.empty() && a.status == 404)
                missing = true;
            const auto* tag = a.property(davNs, "getetag");
            if (name.empty() || tag == nullptr)
                return;
            present.insert(name);
            std::string etag = trimmed(tag->text);
            auto k = known.find(name);
            if (k == known.end() || k->second != etag)
                wanted[name] = etag;
        },
        true);
    if (r.status == 404 || moved(r.status) || missing)
        return std::nullopt;
    if (r.status != 207)
        failStatus(formatText(_("reading zone %s"), {zoneName}), url, r);
    changes.complete = true;
    for (const auto& [name, etag] : known)
        if (!present.count(name))
            changes.deleted.push_back(name);
    fetchBodies(url, zoneName, wanted, known, changes);
    return changes;
}

void CalDavService::fetchBodies(const std::string& url, const std::string& zoneName,
                                const std::map<std::string, std::string>& wanted,
                                const std::map<std::string, std::string>& known,
                                ZoneChanges& changes) {
    const std::string path = Url::parse(url).path;
    auto next = wanted.begin();
    while (next != wanted.end()) {
        std::set<std::string> asked;
        std::string hrefs;
        for (; next != wanted.end() && asked.size() < multigetChunk; ++next) {
            asked.insert(next->first);
            hrefs += "<d:href>" + xmlEscaped(withSlash(path) + percentEncodeSegment(next->first)) +
                     "</d:href>";
        }
        std::set<std::string> answered;
        HttpRequest multiget{
            "REPORT",
            url,
            {xmlType, "Depth: 1"},
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
            "<c:calendar-multiget xmlns:d=\"DAV:\" xmlns:c=\"urn:ietf:params:xml:ns:caldav\">"
            "<d:prop><d:getetag/><c:calendar-data/></d:prop>" +
                hrefs + "</c:calendar-multiget>"};
        multiget.slowToStart = true;
        HttpResponse r = sendReading(std::move(multiget), [&](DavResponse&& a) {
            std::string name = childName(url, a.href);
            if (!asked.count(name) || !answered.insert(name).second)
                return;
            if (a.effectiveStatus() == 404) {
                // Gone between the listing and now.
                if (known.count(name))
                    changes.deleted.push_back(name);
                return;
            }
            if (a.oversized) {
                changes.unreadable.emplace_back(name, "the event is too large to read");
                return;
            }
            const auto* data = a.property(calDavNs, "calendar-data");
            if (data == nullptr) {
                changes.unreadable.emplace_back(name, "the server sent no event data");
                return;
            }
            const auto* tag = a.property(davNs, "getetag");
            try {
                RemoteRecord remote{
                    readZoneResource(data->text, std::string(eventRecordType), zoneName), name,
                    tag ? trimmed(tag->text) : wanted.at(name)};
                ++bodies_;
                changes.changed.push_back(std::move(remote));
            } catch (const CloudError& e) {
                changes.unreadable.emplace_back(name, e.what());
            }
        });
        if (r.status == 404 || moved(r.status))
            throw ZoneMissing("zone " + zoneName + " went away while it was read");
        if (r.status != 207)
            failStatus(formatText(_("reading zone %s"), {zoneName}), url, r);
        for (const auto& name : asked)
            if (!answered.count(name))
                changes.unreadable.emplace_back(name, "the server did not send it");
    }
}

ZoneChanges CalDavService::fetchChanges(const std::string& zoneName, const std::string& token,
                                        const std::map<std::string, std::string>& known) {
    return onCollection<ZoneChanges>(
        zoneName, [&](const std::string& url) -> std::optional<ZoneChanges> {
            if (token.rfind(ctagPrefix, 0) == 0)
                return listByTags(url, zoneName, token.substr(ctagPrefix.size()), known);
            bool offered = false;
            {
                std::lock_guard lock(mutex_);
                offered = !noSyncCollection_;
            }
            if (offered) {
                const std::string given =
                    token.rfind(syncPrefix, 0) == 0 ? token.substr(syncPrefix.size()) : "";
                long status = 0;
                try {
                    if (auto changes = syncCollection(url, zoneName, given, known, status))
                        return changes;
                } catch (const UnreadableAnswer&) {
                    if (given.empty())
                        throw;
                }
                if (status == 404 || moved(status))
                    return std::nullopt;
                // A token the server no longer takes (Radicale: 403 valid-sync-token; Xandikos:
                // 500): one full listing instead.
                if (!given.empty()) {
                    status = 0;
                    if (auto changes = syncCollection(url, zoneName, {}, known, status))
                        return changes;
                    if (status == 404 || moved(status))
                        return std::nullopt;
                }
                // A refusal of the report itself means no sync-collection here: tags it is, from
                // now on. Anything else (a server error, a refused password) is the pull's end.
                const bool refused = status == 400 || status == 403 || status == 405 ||
                                     status == 415 || status == 422 || status == 501;
                if (!refused) {
                    HttpResponse answer;
                    answer.status = status;
                    failStatus(formatText(_("reading zone %s"), {zoneName}), url, answer);
                }
                std::lock_guard lock(mutex_);
                noSyncCollection_ = true;
            }
            return listByTags(url, zoneName, {}, known);
        });
}

std::optional<std::string> CalDavService::put(const std::string& collection,
                                              const std::string& target, const std::string& body,
                                              const std::string& condition,
                                              const std::string& what) {
    std::vector<std::string> headers = {calendarType};
    if (!condition.empty())
        headers.push_back(condition);
    HttpResponse r = send({"PUT", target, headers, body});
    if (success(r.status))
        return r.etag;
    if (r.status == 412)
        throw PreconditionFailed(what + ": the server holds another version (412)");
    if (r.status == 404 || r.status == 409 || moved(r.status)) {
        // The collection, or only the resource (If-Match on a deleted one)?
        if (!exists(collection))
            return std::nullopt;
        if (r.status == 404)
            throw PreconditionFailed(what + ": the resource is gone (404)");
    }
    failStatus(what, target, r);
}

namespace {

Instant nowToTheMillisecond() {
    return std::chrono::time_point_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now());
}

} // namespace

std::string CalDavService::createRecord(const CloudRecord& record, const std::string& resource) {
    const std::string what = formatText(_("saving record %s"), {record.recordId.recordName});
    checkResource(resource, what);
    const std::string body = writeRecordCalendar(record, nowToTheMillisecond());
    return onCollection<std::string>(
        record.recordId.zoneName, [&](const std::string& url) -> std::optional<std::string> {
            return put(url, url + percentEncodeSegment(resource), body, "If-None-Match: *", what);
        });
}

std::string CalDavService::replaceRecord(const CloudRecord& record, const std::string& resource,
                                         const std::string& etag) {
    const std::string what = formatText(_("saving record %s"), {record.recordId.recordName});
    checkResource(resource, what);
    // The edit goes into the server's own copy, so that what calendar apps keep in the event
    // (alarms, the end, exceptions, a time of day in its zone) stays: one GET before each PUT,
    // a round trip and the event's body more.
    return onCollection<std::string>(
        record.recordId.zoneName, [&](const std::string& url) -> std::optional<std::string> {
            const std::string target = url + percentEncodeSegment(resource);
            HttpRequest request("GET", target, {"Accept: text/calendar"});
            request.maxBody = MultistatusLimits{}.responseBytes;
            HttpResponse r = send(request);
            if (r.status == 404 || r.status == 410 || moved(r.status)) {
                if (!exists(url))
                    return std::nullopt;
                throw PreconditionFailed(what + ": the resource is gone (" +
                                         std::to_string(r.status) + ")");
            }
            if (r.status != 200)
                failStatus(what, target, r);
            if (r.truncated)
                throw CloudError(what + ": the event on the server is too large to read");
            // What the If-Match would refuse is refused before the merge; a server that gives no
            // tags cannot be written conditionally.
            if (!etag.empty() && !r.etag.empty() && !sameTag(r.etag, etag))
                throw PreconditionFailed(what + ": the server holds another version");
            std::string body;
            try {
                body = mergeRecordCalendar(r.body, record, nowToTheMillisecond());
            } catch (const CloudError& e) {
                throw CloudError(what + ": " + e.what());
            }
            return put(url, target, body, etag.empty() ? std::string() : "If-Match: " + etag, what);
        });
}

void CalDavService::deleteRecord(const std::string& zoneName, const std::string& resource,
                                 const std::string& etag) {
    checkResource(resource, formatText(_("deleting a record of zone %s"), {zoneName}));
    const std::string target = zoneUrl(zoneName) + percentEncodeSegment(resource);
    std::vector<std::string> headers;
    if (!etag.empty())
        headers.push_back("If-Match: " + etag);
    HttpResponse r = send({"DELETE", target, headers});
    if (success(r.status) || r.status == 404)
        return;
    if (r.status == 412) {
        // Some servers answer 412 for a resource that is gone: that is deleted too.
        if (!exists(target))
            return;
        throw PreconditionFailed("deleting record " + resource +
                                 ": the server holds another version (412)");
    }
    failStatus(formatText(_("deleting record %s"), {resource}), target, r);
}

std::optional<RemoteRecord> CalDavService::fetchRecord(const std::string& zoneName,
                                                       const std::string& resource) {
    checkResource(resource, formatText(_("reading a record of zone %s"), {zoneName}));
    const std::string target = zoneUrl(zoneName) + percentEncodeSegment(resource);
    HttpRequest request("GET", target, {"Accept: text/calendar"});
    request.maxBody = MultistatusLimits{}.responseBytes;
    HttpResponse r = send(request);
    if (r.status == 404 || r.status == 410)
        return std::nullopt;
    if (r.status != 200)
        failStatus(formatText(_("reading record %s"), {resource}), target, r);
    if (r.truncated)
        throw CloudError("reading record " + resource + ": the event is too large to read");
    ++bodies_;
    return RemoteRecord{readZoneResource(r.body, std::string(eventRecordType), zoneName), resource,
                        r.etag};
}

void CalDavService::startPass() {
    if (client_)
        client_->forgetUnreachable();
}

void CalDavService::cancel() {
    if (cancelListener_)
        cancelListener_();
    if (client_)
        client_->cancel();
}

} // namespace almanor::caldav
