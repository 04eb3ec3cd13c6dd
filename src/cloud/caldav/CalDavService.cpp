#include "cloud/caldav/CalDavService.h"

#include "cloud/caldav/Multistatus.h"
#include "cloud/caldav/RecordCalendar.h"

#include <algorithm>
#include <chrono>

namespace almanor::caldav {

namespace {

const std::string xmlType = "Content-Type: application/xml; charset=utf-8";
const std::string calendarType = "Content-Type: text/calendar; charset=utf-8";

bool success(long status) {
    return status >= 200 && status <= 299;
}

[[noreturn]] void failStatus(const std::string& what, const HttpResponse& response) {
    if (response.status == 401)
        throw CloudError("the server refused the user name or password");
    if (response.status == 403)
        throw CloudError(what + ": access refused by the server (403)");
    throw CloudError(what + ": the server answered " + std::to_string(response.status));
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
                             Timeouts timeouts)
    : server_(std::move(server)), password_(std::move(password)) {
    if (!server_.empty()) {
        // The password is asked for once per service, when the first request needs it.
        auto cached = std::make_shared<std::optional<std::string>>();
        auto lock = std::make_shared<std::mutex>();
        PasswordSource source = [source = password_, cached, lock] {
            std::lock_guard guard(*lock);
            if (!*cached)
                *cached = source ? source() : std::string();
            return **cached;
        };
        password_ = source;
        try {
            client_.emplace(server_, std::move(user), std::move(source), timeouts);
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

HttpResponse CalDavService::propfind(const std::string& url, int depth,
                                     const std::string& props) const {
    return send({"PROPFIND",
                 url,
                 {xmlType, "Depth: " + std::to_string(depth)},
                 "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                 "<d:propfind xmlns:d=\"DAV:\" xmlns:c=\"urn:ietf:params:xml:ns:caldav\"><d:prop>" +
                     props + "</d:prop></d:propfind>"});
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
    // The URL the user gave, then the well-known address (whose redirect is followed by hand so
    // that each hop passes the same checks).
    std::vector<std::string> candidates = {
        server, url.scheme + "://" +
                    (url.host.find(':') != std::string::npos ? "[" + url.host + "]" : url.host) +
                    ":" + std::to_string(url.port) + "/.well-known/caldav"};
    std::string principal;
    std::string lastProblem = "no CalDAV server at " + server;
    for (std::string candidate : candidates) {
        for (int hop = 0; hop < 5 && principal.empty(); ++hop) {
            HttpResponse r =
                propfind(candidate, 0, "<d:current-user-principal/><c:calendar-home-set/>");
            if (r.status == 401)
                failStatus(candidate, r);
            if (r.status >= 300 && r.status <= 399 && !r.location.empty()) {
                candidate = Url::resolve(candidate, r.location);
                continue;
            }
            if (r.status != 207) {
                lastProblem = "no CalDAV server at " + server + " (the server answered " +
                              std::to_string(r.status) + ")";
                break;
            }
            std::vector<DavResponse> answers;
            try {
                answers = readMultistatus(r.body);
            } catch (const CloudError&) {
                lastProblem = "no CalDAV server at " + server + " (its answer is not WebDAV)";
                break;
            }
            for (const auto& a : answers) {
                if (const auto* home = a.property(calDavNs, "calendar-home-set");
                    home && !home->hrefs.empty()) {
                    std::lock_guard lock(mutex_);
                    home_ = withSlash(Url::resolve(candidate, home->hrefs.front()));
                }
                if (const auto* p = a.property(davNs, "current-user-principal");
                    p && !p->hrefs.empty())
                    principal = Url::resolve(candidate, p->hrefs.front());
            }
            break;
        }
        if (!principal.empty())
            break;
    }
    if (principal.empty())
        throw CloudError(lastProblem);

    HttpResponse r =
        propfind(principal, 0,
                 "<c:calendar-home-set/><c:schedule-inbox-URL/><c:schedule-default-calendar-URL/>");
    if (!success(r.status))
        failStatus("PROPFIND " + pathOf(principal), r);
    std::string home;
    std::string inbox;
    std::string defaultCalendar;
    for (const auto& a : readMultistatus(r.body)) {
        if (const auto* h = a.property(calDavNs, "calendar-home-set"); h && !h->hrefs.empty())
            home = withSlash(Url::resolve(principal, h->hrefs.front()));
        if (const auto* i = a.property(calDavNs, "schedule-inbox-URL"); i && !i->hrefs.empty())
            inbox = Url::resolve(principal, i->hrefs.front());
        if (const auto* d = a.property(calDavNs, "schedule-default-calendar-URL");
            d && !d->hrefs.empty())
            defaultCalendar = Url::resolve(principal, d->hrefs.front());
    }
    if (home.empty())
        throw CloudError("no CalDAV calendar home for this user at " + server);
    std::lock_guard lock(mutex_);
    home_ = home;
    principal_ = inbox; // where the default calendar is asked for, when the principal did not say
    defaultCalendar_ = defaultCalendar;
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
        HttpResponse r = propfind(inbox, 0, "<c:schedule-default-calendar-URL/>");
        if (r.status == 207)
            for (const auto& a : readMultistatus(r.body))
                if (const auto* d = a.property(calDavNs, "schedule-default-calendar-URL");
                    d && !d->hrefs.empty()) {
                    std::lock_guard lock(mutex_);
                    defaultCalendar_ = Url::resolve(inbox, d->hrefs.front());
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
    HttpResponse r = send(
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
             "</d:prop></d:set></c:mkcalendar>"});
    if (success(r.status) && r.status != 207)
        return;
    // "It exists already", in each server's words: 405 (not allowed on an existing resource),
    // 409, or a multistatus whose error is resource-must-be-null.
    if (r.status == 405 || r.status == 409)
        return;
    if (r.status == 207) {
        bool exists = false;
        bool failed = false;
        for (const auto& a : readMultistatus(r.body)) {
            if (contains(a.errors, davNs, "resource-must-be-null") ||
                contains(a.errors, calDavNs, "resource-must-be-null"))
                exists = true;
            else if (!success(a.effectiveStatus()))
                failed = true;
        }
        if (exists || !failed)
            return;
    }
    failStatus("creating zone " + zoneName, r);
}

std::vector<RecordZone> CalDavService::fetchAllZones() {
    const std::string homeUrl = home();
    HttpResponse r = propfind(homeUrl, 1, "<d:resourcetype/><d:displayname/>");
    if (r.status != 207)
        failStatus("listing the calendars", r);
    std::vector<RecordZone> zones;
    for (const auto& a : readMultistatus(r.body)) {
        const auto* type = a.property(davNs, "resourcetype");
        if (type == nullptr || !contains(type->children, calDavNs, "calendar"))
            continue;
        std::string url = withSlash(Url::resolve(homeUrl, a.href));
        if (samePath(url, homeUrl))
            continue;
        zones.push_back(RecordZone{lastSegment(url), url});
    }
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
    failStatus("saving record " + record.recordId.recordName, r);
}

CloudRecord CalDavService::saveRecord(const CloudRecord& record) {
    put(record, true);
    return record;
}

void CalDavService::deleteRecord(const RecordId& recordId) {
    HttpResponse r = send({"DELETE", recordUrl(recordId), {}, {}});
    if (success(r.status) || r.status == 404)
        return;
    failStatus("deleting record " + recordId.recordName, r);
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
    HttpResponse r = send({"REPORT", url, {xmlType, "Depth: 1"}, head + typeFilter + tail});
    // A server that cannot filter on the type is asked for every event; the reader sorts them.
    if (r.status == 400 || r.status == 403 || r.status == 501)
        r = send({"REPORT", url, {xmlType, "Depth: 1"}, head + tail});
    if (r.status == 404)
        throw CloudError("zone " + zoneName + " does not exist");
    if (r.status != 207)
        failStatus("reading zone " + zoneName, r);
    std::vector<CloudRecord> records;
    for (const auto& a : readMultistatus(r.body)) {
        const auto* data = a.property(calDavNs, "calendar-data");
        if (data == nullptr)
            continue;
        if (auto record = readRecordCalendar(data->text, recordType, zoneName))
            records.push_back(std::move(*record));
    }
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
