#include "cloud/caldav/CalDavService.h"

#include "cloud/caldav/RecordCalendar.h"
#include "platform/UrlText.h"

#include <algorithm>
#include <chrono>

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
        throw CloudError("the server at " + server + " refused the user name or password");
    if (response.status == 403)
        throw CloudError(what + ": access refused by the server at " + server + " (403)");
    throw CloudError(what + ": the server at " + server + " answered " +
                     std::to_string(response.status));
}

std::string xmlEscape(std::string_view text) {
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
    }
    return out;
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
    worker_ = std::thread([this] { worker(); });
}

CalDavService::~CalDavService() {
    {
        std::lock_guard lock(queueMutex_);
        stopping_ = true;
    }
    queueChanged_.notify_all();
    worker_.join();
}

const HttpClient& CalDavService::client() const {
    if (!setupError_.empty())
        throw CloudError(setupError_);
    if (!client_)
        throw CloudError("no cloud account");
    return *client_;
}

HttpResponse CalDavService::send(HttpRequest request) const {
    return client().perform(request);
}

HttpResponse CalDavService::sendReading(HttpRequest request,
                                        const std::function<void(DavResponse&&)>& each) const {
    MultistatusReader reader(each);
    request.stream = [&reader](std::string_view chunk) { reader.feed(chunk); };
    HttpResponse r = send(request);
    if (r.status == 207) {
        try {
            reader.finish();
        } catch (const CloudError& e) {
            throw UnreadableAnswer(request.method + " " + redactUrl(request.url) + ": " + e.what());
        }
    }
    return r;
}

HttpResponse CalDavService::propfind(const std::string& url, int depth, const std::string& props,
                                     const std::function<void(DavResponse&&)>& each) const {
    return sendReading(
        {"PROPFIND",
         url,
         {xmlType, "Depth: " + std::to_string(depth)},
         "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
         "<d:propfind xmlns:d=\"DAV:\" xmlns:c=\"urn:ietf:params:xml:ns:caldav\"><d:prop>" +
             props + "</d:prop></d:propfind>"},
        each);
}

void CalDavService::trustOrigins(const std::vector<std::string>& origins) {
    if (client_)
        for (const auto& origin : origins)
            client_->trustOrigin(origin);
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

std::string CalDavService::discoverHome() {
    {
        std::lock_guard lock(mutex_);
        if (!home_.empty())
            return home_;
    }
    const HttpClient& http = client();
    const std::string server = http.server();
    const Url url = Url::parse(server);
    const std::string shown = redactUrl(server);
    // Credentials go to another origin only when the configured server itself names it.
    auto named = [&](const std::string& answeredBy, const std::string& href) {
        if (Url::parse(answeredBy).origin() == url.origin())
            http.trustOrigin(href);
        return href;
    };
    auto firstHref = [](const DavResponse& a, std::string_view ns, std::string_view local) {
        const auto* p = a.property(ns, local);
        return p && !p->hrefs.empty() ? p->hrefs.front() : std::string();
    };
    // The URL the user gave, then the well-known address (whose redirect is followed by hand so
    // that each hop passes the same checks).
    std::vector<std::string> candidates = {server, url.origin() + "/.well-known/caldav"};
    std::string principal;
    std::string lastProblem = "no CalDAV server at " + shown;
    for (std::string candidate : candidates) {
        for (int hop = 0; hop < 5 && principal.empty(); ++hop) {
            std::string home;
            std::string named_principal;
            HttpResponse r;
            try {
                r = propfind(
                    candidate, 0, "<d:current-user-principal/><c:calendar-home-set/>",
                    [&](DavResponse&& a) {
                        if (auto h = firstHref(a, calDavNs, "calendar-home-set"); !h.empty())
                            home = h;
                        if (auto p = firstHref(a, davNs, "current-user-principal"); !p.empty())
                            named_principal = p;
                    });
            } catch (const UnreadableAnswer& e) {
                lastProblem = "no CalDAV server at " + shown + " (" + e.what() + ")";
                break;
            }
            if (r.status == 401)
                failStatus("PROPFIND", candidate, r);
            if (r.status >= 300 && r.status <= 399 && !r.location.empty()) {
                candidate = Url::resolve(candidate, r.location);
                continue;
            }
            if (r.status != 207) {
                lastProblem = "no CalDAV server at " + shown + " (the server answered " +
                              std::to_string(r.status) + ")";
                break;
            }
            if (!home.empty()) {
                std::lock_guard lock(mutex_);
                home_ = withSlash(named(candidate, Url::resolve(candidate, home)));
            }
            if (!named_principal.empty())
                principal = named(candidate, Url::resolve(candidate, named_principal));
            break;
        }
        if (!principal.empty())
            break;
    }
    if (principal.empty())
        throw CloudError(lastProblem);

    std::string home;
    std::string inbox;
    std::string defaultCalendar;
    HttpResponse r = propfind(
        principal, 0,
        "<c:calendar-home-set/><c:schedule-inbox-URL/><c:schedule-default-calendar-URL/>",
        [&](DavResponse&& a) {
            if (auto h = firstHref(a, calDavNs, "calendar-home-set"); !h.empty())
                home = h;
            if (auto i = firstHref(a, calDavNs, "schedule-inbox-URL"); !i.empty())
                inbox = i;
            if (auto d = firstHref(a, calDavNs, "schedule-default-calendar-URL"); !d.empty())
                defaultCalendar = d;
        });
    if (!success(r.status))
        failStatus("PROPFIND " + pathOf(principal), principal, r);
    if (home.empty())
        throw CloudError("no CalDAV calendar home for this user at " + shown);
    home = withSlash(named(principal, Url::resolve(principal, home)));
    std::lock_guard lock(mutex_);
    home_ = home;
    // Where the default calendar is asked for, when the principal did not say.
    principal_ = inbox.empty() ? std::string() : Url::resolve(principal, inbox);
    defaultCalendar_ =
        defaultCalendar.empty() ? std::string() : Url::resolve(principal, defaultCalendar);
    return home_;
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
    const std::string homeUrl = home();
    std::string inbox;
    {
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
    throw CloudError("the server has no default calendar for this user");
}

std::string CalDavService::recordUrl(const RecordId& id) {
    return zoneUrl(id.zoneName) + percentEncodeSegment(id.recordName) + ".ics";
}

void CalDavService::saveZone(const std::string& zoneName) {
    const std::string url = zoneUrl(zoneName);
    const std::string displayName = zoneName == "com.vostrel.almanor.zone" ? "Almanor" : zoneName;
    bool exists = false;
    bool failed = false;
    HttpResponse r = sendReading(
        {"MKCALENDAR",
         url,
         {xmlType},
         "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
         "<c:mkcalendar xmlns:d=\"DAV:\" xmlns:c=\"urn:ietf:params:xml:ns:caldav\"><d:set><d:prop>"
         "<d:displayname>" +
             xmlEscape(displayName) +
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
    failStatus("creating zone " + zoneName, url, r);
}

std::vector<RecordZone> CalDavService::fetchAllZones() {
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
    if (r.status != 207)
        failStatus("listing the calendars", homeUrl, r);
    return zones;
}

void CalDavService::put(const CloudRecord& record, bool onlyIfNew) {
    const std::string url = recordUrl(record.recordId);
    std::vector<std::string> headers = {calendarType};
    if (onlyIfNew)
        headers.push_back("If-None-Match: *");
    auto now =
        std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
    HttpResponse r = send({"PUT", url, headers, writeRecordCalendar(record, now)});
    if (success(r.status))
        return;
    if (onlyIfNew && r.status == 412)
        throw CloudError("record " + record.recordId.recordName + " exists already");
    failStatus("saving record " + record.recordId.recordName, url, r);
}

CloudRecord CalDavService::saveRecord(const CloudRecord& record) {
    put(record, true);
    return record;
}

void CalDavService::deleteRecord(const RecordId& recordId) {
    HttpResponse r = send({"DELETE", recordUrl(recordId), {}, {}});
    if (success(r.status) || r.status == 404)
        return;
    failStatus("deleting record " + recordId.recordName, recordUrl(recordId), r);
}

std::vector<CloudRecord> CalDavService::performQuery(const std::string& recordType,
                                                     const std::string& zoneName) {
    const std::string url = zoneUrl(zoneName);
    const std::string head =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
        "<c:calendar-query xmlns:d=\"DAV:\" xmlns:c=\"urn:ietf:params:xml:ns:caldav\">"
        "<d:prop><d:getetag/><c:calendar-data/></d:prop><c:filter>"
        "<c:comp-filter name=\"VCALENDAR\"><c:comp-filter name=\"VEVENT\">";
    const std::string tail = "</c:comp-filter></c:comp-filter></c:filter></c:calendar-query>";
    const std::string typeFilter =
        "<c:prop-filter name=\"X-CD-RECORD-TYPE\"><c:text-match collation=\"i;octet\">" +
        xmlEscape(recordType) + "</c:text-match></c:prop-filter>";
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
    HttpResponse r =
        sendReading({"REPORT", url, {xmlType, "Depth: 1"}, head + typeFilter + tail}, each);
    // A server that cannot filter on the type is asked for every event; the reader sorts them.
    if (r.status == 400 || r.status == 403 || r.status == 501)
        r = sendReading({"REPORT", url, {xmlType, "Depth: 1"}, head + tail}, each);
    if (r.status == 404)
        throw CloudError("zone " + zoneName + " does not exist");
    if (r.status != 207)
        failStatus("reading zone " + zoneName, url, r);
    return records;
}

void CalDavService::modifyRecords(std::vector<CloudRecord> records, const ModifyOptions&) {
    {
        std::lock_guard lock(queueMutex_);
        for (auto& r : records)
            queue_.push_back(std::move(r));
    }
    queueChanged_.notify_all();
}

void CalDavService::flushUnsent() {
    if (client_)
        client_->retryServer(); // a new pass asks the server afresh
    {
        std::lock_guard lock(queueMutex_);
        for (auto& r : unsent_)
            queue_.push_back(std::move(r));
        unsent_.clear();
    }
    queueChanged_.notify_all();
}

void CalDavService::waitForBackgroundWork() {
    std::unique_lock lock(queueMutex_);
    queueChanged_.wait(lock, [&] { return (queue_.empty() && !busy_) || stopping_; });
}

std::vector<CloudRecord> CalDavService::unsentRecords() {
    std::lock_guard lock(queueMutex_);
    std::vector<CloudRecord> out = unsent_;
    out.insert(out.end(), queue_.begin(), queue_.end());
    return out;
}

void CalDavService::worker() {
    std::unique_lock lock(queueMutex_);
    for (;;) {
        queueChanged_.wait(lock, [&] { return !queue_.empty() || stopping_; });
        if (stopping_)
            return;
        CloudRecord record = std::move(queue_.front());
        queue_.pop_front();
        busy_ = true;
        lock.unlock();
        bool sent = false;
        try {
            put(record, false);
            sent = true;
        } catch (const CloudError&) {
            // Kept for flushUnsent; the batched save itself reports nothing.
        }
        lock.lock();
        if (!sent) {
            // A later version of the same record replaces an earlier one that failed.
            std::erase_if(unsent_,
                          [&](const CloudRecord& r) { return r.recordId == record.recordId; });
            unsent_.push_back(std::move(record));
        } else {
            std::erase_if(unsent_,
                          [&](const CloudRecord& r) { return r.recordId == record.recordId; });
        }
        busy_ = false;
        queueChanged_.notify_all();
    }
}

} // namespace almanor::caldav
