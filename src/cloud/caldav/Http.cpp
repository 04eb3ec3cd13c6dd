#include "cloud/caldav/Http.h"

#include "cloud/CloudService.h"
#include "cloud/caldav/Multistatus.h"
#include "platform/Translation.h"
#include "platform/UrlText.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <curl/curl.h>
#include <exception>
#include <glib.h>
#include <memory>
#include <mutex>

namespace almanor::caldav {

namespace {

struct EasyDeleter {
    void operator()(CURL* h) const { curl_easy_cleanup(h); }
};
struct MultiDeleter {
    void operator()(CURLM* h) const { curl_multi_cleanup(h); }
};
struct SlistDeleter {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
struct UrlDeleter {
    void operator()(CURLU* u) const { curl_url_cleanup(u); }
};
struct CurlTextDeleter {
    void operator()(char* p) const { curl_free(p); }
};
using EasyPtr = std::unique_ptr<CURL, EasyDeleter>;
using MultiPtr = std::unique_ptr<CURLM, MultiDeleter>;
using SlistPtr = std::unique_ptr<curl_slist, SlistDeleter>;
using UrlPtr = std::unique_ptr<CURLU, UrlDeleter>;
using CurlText = std::unique_ptr<char, CurlTextDeleter>;

// The one place that turns libcurl's result codes into errors.
void check(CURLcode code, const char* detail = nullptr) {
    if (code == CURLE_OK)
        return;
    std::string message = curl_easy_strerror(code);
    if (detail != nullptr && *detail != '\0')
        message += std::string(": ") + detail;
    throw CloudError(message);
}
void check(CURLUcode code, const std::string& url) {
    if (code != CURLUE_OK)
        throw CloudError(formatText(_("not a usable URL: %s"), {redactUrl(url)}));
}

void initOnce() {
    static std::once_flag once;
    std::call_once(once, [] { check(curl_global_init(CURL_GLOBAL_DEFAULT)); });
}

std::string part(CURLU* u, CURLUPart which, unsigned flags = 0) {
    char* raw = nullptr;
    if (curl_url_get(u, which, &raw, flags) != CURLUE_OK)
        return {};
    CurlText owned(raw);
    return owned.get();
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](char c) { return g_ascii_tolower(c); });
    return s;
}

// One request's state, seen by libcurl's callbacks and by the loop that drives it.
struct Transfer {
    CURL* easy = nullptr;
    const HttpRequest* request = nullptr;
    HttpResponse* response = nullptr;
    std::size_t answerLimit = 0;
    std::size_t received = 0;
    enum class Mode { undecided, stream, keep } mode = Mode::undecided;
    std::string refused;            // why the reader stopped reading the answer
    std::exception_ptr streamError; // what the stream threw
    std::chrono::steady_clock::time_point lastActivity = std::chrono::steady_clock::now();
    bool answered = false; // the server sent a byte of its answer
    std::string_view upload;
    std::size_t uploaded = 0;
};

std::size_t receiveBody(char* data, std::size_t size, std::size_t count, void* target) {
    auto* t = static_cast<Transfer*>(target);
    const std::size_t n = size * count;
    t->lastActivity = std::chrono::steady_clock::now();
    t->received += n;
    if (t->received > t->answerLimit) {
        t->refused =
            "the answer is larger than " + std::to_string(t->answerLimit >> 20) + " MiB; refused";
        return 0;
    }
    if (t->mode == Transfer::Mode::undecided) {
        long status = 0;
        curl_easy_getinfo(t->easy, CURLINFO_RESPONSE_CODE, &status);
        t->mode =
            status == 207 && t->request->stream ? Transfer::Mode::stream : Transfer::Mode::keep;
        t->response->streamed = t->mode == Transfer::Mode::stream;
    }
    if (t->mode == Transfer::Mode::stream) {
        try {
            t->request->stream(std::string_view(data, n));
        } catch (...) {
            t->streamError = std::current_exception();
            return 0;
        }
        return n;
    }
    if (t->response->body.size() + n > t->request->maxBody) {
        t->response->truncated = true;
        return 0;
    }
    t->response->body.append(data, n);
    return n;
}

std::size_t readHeader(char* data, std::size_t size, std::size_t count, void* target) {
    auto* t = static_cast<Transfer*>(target);
    HttpResponse* response = t->response;
    t->lastActivity = std::chrono::steady_clock::now();
    t->answered = true;
    std::string_view line(data, size * count);
    auto colon = line.find(':');
    if (colon != std::string_view::npos) {
        std::string name = lower(std::string(line.substr(0, colon)));
        std::string_view value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
            value.remove_prefix(1);
        while (!value.empty() &&
               (value.back() == '\r' || value.back() == '\n' || value.back() == ' '))
            value.remove_suffix(1);
        if (name == "etag")
            response->etag = value;
        else if (name == "location")
            response->location = value;
    } else if (line.substr(0, 5) == "HTTP/") {
        // A new status line (after a 100 Continue): start the headers afresh.
        response->etag.clear();
        response->location.clear();
    }
    return size * count;
}

std::size_t sendBody(char* buffer, std::size_t size, std::size_t count, void* source) {
    auto* t = static_cast<Transfer*>(source);
    t->lastActivity = std::chrono::steady_clock::now();
    std::size_t n = std::min(size * count, t->upload.size() - t->uploaded);
    std::copy_n(t->upload.data() + t->uploaded, n, buffer);
    t->uploaded += n;
    return n;
}

} // namespace

// Handles kept between requests keep their connections open: a pass of hundreds of PUTs then
// costs one connection (and one TLS handshake) instead of one each. Each request runs in a multi
// handle of its own, so that the loop driving it can end it at its deadline or on cancel().
struct HttpClient::HandlePool {
    std::mutex mutex;
    std::vector<std::pair<MultiPtr, EasyPtr>> idle;
    // Why the server could not be reached, and when: requests after that fail at once until the
    // next pass, so that a pass over a silent server costs one wait, not one per record.
    std::string unreachable;
    std::string ownOrigin;
    std::vector<std::string> trusted; // origins the server named, besides its own
    std::atomic<bool> cancelled = false;
};

namespace {

class HandleLease {
  public:
    explicit HandleLease(HttpClient::HandlePool& pool) : pool_(pool) {
        {
            std::lock_guard lock(pool_.mutex);
            if (!pool_.idle.empty()) {
                handles_ = std::move(pool_.idle.back());
                pool_.idle.pop_back();
            }
        }
        if (handles_.second)
            curl_easy_reset(handles_.second.get()); // options go, connections stay
        else
            handles_ = {MultiPtr(curl_multi_init()), EasyPtr(curl_easy_init())};
        if (!handles_.first || !handles_.second)
            throw CloudError("out of memory");
    }
    ~HandleLease() {
        std::lock_guard lock(pool_.mutex);
        pool_.idle.push_back(std::move(handles_));
    }
    HandleLease(const HandleLease&) = delete;
    HandleLease& operator=(const HandleLease&) = delete;
    CURLM* multi() const { return handles_.first.get(); }
    CURL* easy() const { return handles_.second.get(); }

  private:
    HttpClient::HandlePool& pool_;
    std::pair<MultiPtr, EasyPtr> handles_;
};

// The easy handle is in the multi handle while it lives.
class Attached {
  public:
    Attached(CURLM* multi, CURL* easy) : multi_(multi), easy_(easy) {
        if (curl_multi_add_handle(multi_, easy_) != CURLM_OK)
            throw CloudError("out of memory");
    }
    ~Attached() { curl_multi_remove_handle(multi_, easy_); }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;

  private:
    CURLM* multi_;
    CURL* easy_;
};

} // namespace

Url Url::parse(const std::string& text) {
    initOnce();
    UrlPtr u(curl_url());
    if (!u)
        throw CloudError("out of memory");
    check(curl_url_set(u.get(), CURLUPART_URL, text.c_str(), 0), text);
    Url url;
    url.scheme = lower(part(u.get(), CURLUPART_SCHEME));
    if (url.scheme != "http" && url.scheme != "https")
        throw CloudError(formatText(_("not an http or https URL: %s"), {redactUrl(text)}));
    if (!part(u.get(), CURLUPART_USER).empty())
        throw CloudError(
            formatText(_("a URL must not hold a user name or password: %s"), {redactUrl(text)}));
    url.host = lower(part(u.get(), CURLUPART_HOST));
    if (url.host.size() > 1 && url.host.front() == '[')
        url.host = url.host.substr(1, url.host.size() - 2);
    std::string port = part(u.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    url.port = port.empty() ? 0 : std::stoi(port);
    url.path = part(u.get(), CURLUPART_PATH);
    if (url.path.empty())
        url.path.push_back('/'); // not = "/": GCC 12 warns falsely (-Wrestrict) at -O3
    return url;
}

std::string Url::resolve(const std::string& base, const std::string& href) {
    initOnce();
    // Some servers send whole URLs percent-encoded ("http%3A//host%3A80/path/").
    std::string target = href;
    std::string decoded = lower(percentDecode(href.substr(0, 16)));
    if (decoded.rfind("http://", 0) == 0 || decoded.rfind("https://", 0) == 0)
        target = percentDecode(href);
    UrlPtr u(curl_url());
    if (!u)
        throw CloudError("out of memory");
    check(curl_url_set(u.get(), CURLUPART_URL, base.c_str(), 0), base);
    check(curl_url_set(u.get(), CURLUPART_URL, target.c_str(), 0), href);
    // Credentials come from the account alone, never from an address a server sent.
    curl_url_set(u.get(), CURLUPART_USER, nullptr, 0);
    curl_url_set(u.get(), CURLUPART_PASSWORD, nullptr, 0);
    curl_url_set(u.get(), CURLUPART_OPTIONS, nullptr, 0);
    return part(u.get(), CURLUPART_URL);
}

std::string Url::origin() const {
    const bool v6 = host.find(':') != std::string::npos;
    return scheme + "://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool Url::isLoopback() const {
    if (host == "localhost" || host == "::1")
        return true;
    return host.rfind("127.", 0) == 0 && host.find_first_not_of("0123456789.") == std::string::npos;
}

std::string percentDecode(std::string_view text) {
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() + 0 && hex(text[i + 1]) >= 0 &&
            hex(text[i + 2]) >= 0) {
            out += char(hex(text[i + 1]) * 16 + hex(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string percentEncodeSegment(std::string_view text) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (g_ascii_isalnum(char(c)) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += char(c);
        } else {
            out += '%';
            out += digits[c >> 4];
            out += digits[c & 15];
        }
    }
    return out;
}

std::string lastSegment(const std::string& url) {
    std::string path = url;
    if (auto scheme = path.find("://"); scheme != std::string::npos) {
        auto slash = path.find('/', scheme + 3);
        path = slash == std::string::npos ? "/" : path.substr(slash);
    }
    if (auto query = path.find_first_of("?#"); query != std::string::npos)
        path.resize(query);
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    auto slash = path.rfind('/');
    return percentDecode(slash == std::string::npos ? path : path.substr(slash + 1));
}

HttpClient::HttpClient(std::string server, std::string user, PasswordSource password, Limits limits)
    : server_(std::move(server)), user_(std::move(user)), password_(std::move(password)),
      limits_(limits) {
    const Url url = parseServer(server_);
    pool_ = std::make_shared<HandlePool>();
    pool_->ownOrigin = url.origin();
}

Url HttpClient::parseServer(const std::string& server) {
    Url url = Url::parse(server);
    if (url.scheme == "http" && !url.isLoopback())
        throw CloudError(_("plain http is accepted only for this machine; use https://"));
    return url;
}

bool HttpClient::trustOrigin(const std::string& url) const {
    Url parsed;
    try {
        parsed = Url::parse(url);
    } catch (const CloudError&) {
        return false;
    }
    if (parsed.scheme != "https" && !parsed.isLoopback())
        return false;
    const std::string origin = parsed.origin();
    std::lock_guard lock(pool_->mutex);
    if (origin != pool_->ownOrigin &&
        std::find(pool_->trusted.begin(), pool_->trusted.end(), origin) == pool_->trusted.end())
        pool_->trusted.push_back(origin);
    return true;
}

std::vector<std::string> HttpClient::trustedOrigins() const {
    std::lock_guard lock(pool_->mutex);
    return pool_->trusted;
}

namespace {

// Whether the request may go out, and with the account's credentials: only to the server's own
// origin or one it named. Refuses plain http off this machine, a cancelled client and, for the
// rest of a pass, a server found unreachable.
bool mayCarryCredentials(HttpClient::HandlePool& pool, const Url& target, const std::string& what) {
    if (target.scheme == "http" && !target.isLoopback())
        throw CloudError(formatText(_("refusing plain http to %s"), {target.host}));
    if (pool.cancelled)
        throw CloudError(formatText(_("%s: cancelled"), {what}));
    std::lock_guard lock(pool.mutex);
    if (!pool.unreachable.empty())
        throw CloudError(
            formatText(_("%s: %s (not tried again in this pass)"), {what, pool.unreachable}));
    return target.origin() == pool.ownOrigin || std::find(pool.trusted.begin(), pool.trusted.end(),
                                                          target.origin()) != pool.trusted.end();
}

// What every request sets: no redirect followed, verified TLS, the connect timeout.
void setRequestOptions(CURL* h, const HttpRequest& request, const Limits& limits, char* errorText) {
    check(curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText));
    check(curl_easy_setopt(h, CURLOPT_URL, request.url.c_str()));
    check(curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https"));
    check(curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L));
    check(curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L));
    check(curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L));
    check(curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L));
    check(curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, long(limits.connect.count())));
    check(curl_easy_setopt(h, CURLOPT_USERAGENT, "Almanor"));
    check(curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, request.method.c_str()));
}

void setCredentials(CURL* h, const std::string& user, const std::string& password) {
    check(curl_easy_setopt(h, CURLOPT_HTTPAUTH, long(CURLAUTH_BASIC)));
    check(curl_easy_setopt(h, CURLOPT_USERNAME, user.c_str()));
    check(curl_easy_setopt(h, CURLOPT_PASSWORD, password.c_str()));
}

// The request's header lines, after one that turns off "Expect: 100-continue": servers that never
// answer it would stall every upload.
SlistPtr headerList(const std::vector<std::string>& lines) {
    SlistPtr headers;
    auto add = [&](const std::string& line) {
        curl_slist* grown = curl_slist_append(headers.get(), line.c_str());
        if (grown == nullptr)
            throw CloudError("out of memory");
        (void)headers.release();
        headers.reset(grown);
    };
    add("Expect:");
    for (const auto& line : lines)
        add(line);
    return headers;
}

// The body sent from, and the answer and its headers read into, `transfer`.
void setTransferCallbacks(CURL* h, Transfer& transfer) {
    const HttpRequest& request = *transfer.request;
    if (!request.body.empty() || request.method == "PUT") {
        check(curl_easy_setopt(h, CURLOPT_UPLOAD, 1L));
        check(curl_easy_setopt(h, CURLOPT_READFUNCTION, sendBody));
        check(curl_easy_setopt(h, CURLOPT_READDATA, &transfer));
        check(curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, curl_off_t(request.body.size())));
        // CURLOPT_UPLOAD turns the method into PUT; the custom method still applies.
    }
    check(curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, receiveBody));
    check(curl_easy_setopt(h, CURLOPT_WRITEDATA, &transfer));
    check(curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, readHeader));
    check(curl_easy_setopt(h, CURLOPT_HEADERDATA, &transfer));
}

// How the loop that drives a transfer ended.
struct Ending {
    enum class Reason { done, deadline, firstByte, stall, cancelled } reason = Reason::done;
    CURLcode code = CURLE_OK; // libcurl's result, when done
};

// Drives the transfer to its end, checking the deadline, the stall and cancel() at least every
// tenth of a second.
Ending drive(HandleLease& lease, Transfer& transfer, const HttpClient::HandlePool& pool,
             const Limits& limits, const std::string& what) {
    using Clock = std::chrono::steady_clock;
    auto started = Clock::now();
    bool answerStarted = false;
    transfer.lastActivity = started;
    Attached attached(lease.multi(), transfer.easy);
    for (;;) {
        int running = 0;
        CURLMcode mc = curl_multi_perform(lease.multi(), &running);
        if (mc != CURLM_OK)
            throw CloudError(what + ": " + curl_multi_strerror(mc));
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(lease.multi(), &queued)) {
            if (message->msg == CURLMSG_DONE && message->easy_handle == transfer.easy)
                return {Ending::Reason::done, message->data.result};
        }
        const auto now = Clock::now();
        if (pool.cancelled)
            return {Ending::Reason::cancelled};
        // A request slow to start waits for its first byte, then gets the deadline for its answer.
        const bool waiting = transfer.request->slowToStart && !transfer.answered;
        if (transfer.request->slowToStart && transfer.answered && !answerStarted) {
            answerStarted = true;
            started = now;
        }
        if (waiting && now - started >= limits.firstByte)
            return {Ending::Reason::firstByte};
        if (!waiting && now - started >= limits.deadline)
            return {Ending::Reason::deadline};
        if (now - transfer.lastActivity >= limits.stall && !waiting)
            return {Ending::Reason::stall};
        const auto limit = waiting ? limits.firstByte : limits.deadline;
        const auto left =
            std::min(limit - (now - started), Clock::duration(std::chrono::milliseconds(100)));
        const int waitMs =
            int(std::max<long long>(1, std::chrono::ceil<std::chrono::milliseconds>(left).count()));
        if (curl_multi_poll(lease.multi(), nullptr, 0, waitMs, nullptr) != CURLM_OK)
            throw CloudError(what + ": the network could not be watched");
    }
}

// What went wrong with a transfer that libcurl ended, or nothing. Errors of the answer's reader
// are thrown as they are, with the request named.
std::string failureOf(CURLcode code, const Transfer& transfer, const char* errorText,
                      const std::string& what, std::string& unreachable) {
    if (code == CURLE_OK)
        return {};
    if (transfer.streamError) {
        try {
            std::rethrow_exception(transfer.streamError);
        } catch (const UnreadableAnswer& e) {
            throw UnreadableAnswer(what + ": " + e.what());
        } catch (const CloudError& e) {
            throw CloudError(what + ": " + e.what());
        }
    }
    if (!transfer.refused.empty())
        throw UnreadableAnswer(what + ": " + transfer.refused);
    if (code == CURLE_WRITE_ERROR && transfer.response->truncated)
        return {}; // the status is what counts; the body was cut at its limit
    std::string reason = curl_easy_strerror(code);
    if (errorText[0] != '\0')
        reason += std::string(" (") + errorText + ")";
    if (code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_HOST ||
        code == CURLE_OPERATION_TIMEDOUT)
        unreachable = curl_easy_strerror(code);
    return reason;
}

// Throws the error the transfer ended in, if any. A server found unreachable is not tried again
// until forgetUnreachable().
void throwIfFailed(const Ending& ending, const Transfer& transfer, const char* errorText,
                   HttpClient::HandlePool& pool, const Limits& limits, const std::string& what) {
    std::string unreachable;
    std::string reason;
    switch (ending.reason) {
    case Ending::Reason::cancelled:
        throw CloudError(formatText(_("%s: cancelled"), {what}));
    case Ending::Reason::deadline:
        unreachable = formatText(_("the server did not finish its answer within %d s"),
                                 {std::to_string(limits.deadline.count())});
        break;
    case Ending::Reason::firstByte:
        unreachable = formatText(_("the server did not begin its answer within %d s"),
                                 {std::to_string(limits.firstByte.count())});
        break;
    case Ending::Reason::stall:
        unreachable = formatText(_("nothing from the server for %d s"),
                                 {std::to_string(limits.stall.count())});
        break;
    case Ending::Reason::done:
        reason = failureOf(ending.code, transfer, errorText, what, unreachable);
        break;
    }
    if (!unreachable.empty()) {
        {
            std::lock_guard lock(pool.mutex);
            pool.unreachable = unreachable;
        }
        if (reason.empty())
            reason = unreachable;
    }
    if (!reason.empty())
        throw CloudError(redactUrls(what + ": " + reason));
}

} // namespace

HttpResponse HttpClient::perform(const HttpRequest& request) const {
    initOnce();
    const Url target = Url::parse(request.url);
    const std::string what = request.method + " " + target.origin() + target.path;
    bool credentials = mayCarryCredentials(*pool_, target, what);
    HandleLease lease(*pool_);
    CURL* h = lease.easy();
    char errorText[CURL_ERROR_SIZE] = {};
    setRequestOptions(h, request, limits_, errorText);

    std::string password;
    struct Wipe {
        std::string& s;
        ~Wipe() { std::fill(s.begin(), s.end(), '\0'); }
    } wipe{password};
    if (credentials && !user_.empty()) {
        password = password_ ? password_() : std::string();
        setCredentials(h, user_, password);
    }
    SlistPtr headers = headerList(request.headers);
    check(curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get()));

    HttpResponse response;
    Transfer transfer;
    transfer.easy = h;
    transfer.request = &request;
    transfer.response = &response;
    transfer.answerLimit = limits_.answerBytes;
    transfer.upload = request.body;
    setTransferCallbacks(h, transfer);

    Ending ending = drive(lease, transfer, *pool_, limits_, what);
    throwIfFailed(ending, transfer, errorText, *pool_, limits_, what);
    check(curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &response.status));
    return response;
}

void HttpClient::forgetUnreachable() const {
    std::lock_guard lock(pool_->mutex);
    pool_->unreachable.clear();
}

void HttpClient::cancel() const {
    pool_->cancelled = true;
}

} // namespace almanor::caldav
