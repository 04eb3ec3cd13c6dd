#include "cloud/caldav/Http.h"

#include "cloud/CloudService.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <curl/curl.h>
#include <memory>
#include <mutex>

namespace almanor::caldav {

namespace {

struct EasyDeleter {
    void operator()(CURL* h) const { curl_easy_cleanup(h); }
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
        throw CloudError("not a usable URL: " + url);
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
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

std::size_t readHeader(char* data, std::size_t size, std::size_t count, void* target) {
    auto* response = static_cast<HttpResponse*>(target);
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

struct Progress {
    std::chrono::seconds stall;
    std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
    curl_off_t down = 0;
    curl_off_t up = 0;
    bool stalled = false;
};

int onProgress(void* data, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
    auto* p = static_cast<Progress*>(data);
    auto now = std::chrono::steady_clock::now();
    if (down != p->down || up != p->up) {
        p->down = down;
        p->up = up;
        p->last = now;
        return 0;
    }
    p->stalled = now - p->last > p->stall;
    return p->stalled ? 1 : 0;
}

struct Body {
    std::string_view data;
    std::size_t offset = 0;
};

std::size_t sendBody(char* buffer, std::size_t size, std::size_t count, void* source) {
    auto* body = static_cast<Body*>(source);
    std::size_t n = std::min(size * count, body->data.size() - body->offset);
    std::copy_n(body->data.data() + body->offset, n, buffer);
    body->offset += n;
    return n;
}

} // namespace

// Handles kept between requests keep their connections open: a pass of hundreds of PUTs then
// costs one connection (and one TLS handshake) instead of one each.
struct HttpClient::HandlePool {
    std::mutex mutex;
    std::vector<EasyPtr> idle;
    // Why the server could not be reached, and when: requests soon after fail at once, so that a
    // pass of many records over a silent server costs one wait, not one per record.
    std::string unreachable;
    std::chrono::steady_clock::time_point unreachableAt;
};

namespace {

class HandleLease {
  public:
    explicit HandleLease(HttpClient::HandlePool& pool) : pool_(pool) {
        {
            std::lock_guard lock(pool_.mutex);
            if (!pool_.idle.empty()) {
                handle_ = std::move(pool_.idle.back());
                pool_.idle.pop_back();
            }
        }
        if (handle_)
            curl_easy_reset(handle_.get()); // options go, connections stay
        else
            handle_.reset(curl_easy_init());
        if (!handle_)
            throw CloudError("out of memory");
    }
    ~HandleLease() {
        std::lock_guard lock(pool_.mutex);
        pool_.idle.push_back(std::move(handle_));
    }
    HandleLease(const HandleLease&) = delete;
    HandleLease& operator=(const HandleLease&) = delete;
    CURL* get() const { return handle_.get(); }

  private:
    HttpClient::HandlePool& pool_;
    EasyPtr handle_;
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
        throw CloudError("not an http or https URL: " + text);
    if (!part(u.get(), CURLUPART_USER).empty())
        throw CloudError("a URL must not hold a user name or password");
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
    return part(u.get(), CURLUPART_URL);
}

std::string Url::origin() const {
    return scheme + "://" + host + ":" + std::to_string(port);
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
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
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

HttpClient::HttpClient(std::string server, std::string user, PasswordSource password,
                       Timeouts timeouts)
    : server_(std::move(server)), user_(std::move(user)), password_(std::move(password)),
      timeouts_(timeouts) {
    Url url = Url::parse(server_);
    if (url.scheme == "http" && !url.isLoopback())
        throw CloudError("plain http is accepted only for this machine; use https://");
    origin_ = url.origin();
    pool_ = std::make_shared<HandlePool>();
}

HttpResponse HttpClient::perform(const HttpRequest& request) const {
    initOnce();
    Url target = Url::parse(request.url);
    if (target.scheme == "http" && !target.isLoopback())
        throw CloudError("refusing plain http to " + target.host);

    {
        std::lock_guard lock(pool_->mutex);
        if (!pool_->unreachable.empty() &&
            std::chrono::steady_clock::now() - pool_->unreachableAt < unreachableWindow)
            throw CloudError(request.method + " " + target.origin() + target.path + ": " +
                             pool_->unreachable + " (not tried again so soon)");
    }
    HandleLease lease(*pool_);
    CURL* h = lease.get();
    char errorText[CURL_ERROR_SIZE] = {};
    check(curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText));
    check(curl_easy_setopt(h, CURLOPT_URL, request.url.c_str()));
    check(curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https"));
    check(curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L));
    check(curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L));
    check(curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L));
    check(curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L));
    check(curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, long(timeouts_.connect.count())));
    // No byte moved either way for the stall time ends the request, however long it has run.
    // (libcurl's low-speed limit averages over several seconds, which stretches the wait.)
    Progress progress{timeouts_.stall};
    check(curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L));
    check(curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, onProgress));
    check(curl_easy_setopt(h, CURLOPT_XFERINFODATA, &progress));
    check(curl_easy_setopt(h, CURLOPT_USERAGENT, "Almanor"));
    check(curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, request.method.c_str()));

    std::string password;
    if (target.origin() == origin_ && !user_.empty()) {
        password = password_ ? password_() : std::string();
        check(curl_easy_setopt(h, CURLOPT_HTTPAUTH, long(CURLAUTH_BASIC)));
        check(curl_easy_setopt(h, CURLOPT_USERNAME, user_.c_str()));
        check(curl_easy_setopt(h, CURLOPT_PASSWORD, password.c_str()));
    }

    SlistPtr headers;
    auto addHeader = [&](const std::string& line) {
        curl_slist* grown = curl_slist_append(headers.get(), line.c_str());
        if (grown == nullptr)
            throw CloudError("out of memory");
        (void)headers.release();
        headers.reset(grown);
    };
    // Servers that never answer "100 Continue" would stall every upload.
    addHeader("Expect:");
    for (const auto& line : request.headers)
        addHeader(line);
    check(curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get()));

    Body body{request.body};
    if (!request.body.empty() || request.method == "PUT") {
        check(curl_easy_setopt(h, CURLOPT_UPLOAD, 1L));
        check(curl_easy_setopt(h, CURLOPT_READFUNCTION, sendBody));
        check(curl_easy_setopt(h, CURLOPT_READDATA, &body));
        check(curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, curl_off_t(request.body.size())));
        // CURLOPT_UPLOAD turns the method into PUT; the custom method above still applies.
    }

    HttpResponse response;
    check(curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, appendBody));
    check(curl_easy_setopt(h, CURLOPT_WRITEDATA, &response.body));
    check(curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, readHeader));
    check(curl_easy_setopt(h, CURLOPT_HEADERDATA, &response));

    CURLcode code = curl_easy_perform(h);
    std::fill(password.begin(), password.end(), '\0');
    if (progress.stalled) {
        code = CURLE_OPERATION_TIMEDOUT;
        std::snprintf(errorText, sizeof errorText, "nothing from the server for %lld s",
                      static_cast<long long>(timeouts_.stall.count()));
    }
    if (code != CURLE_OK) {
        std::string detail = errorText;
        std::string reason =
            curl_easy_strerror(code) + (detail.empty() ? std::string() : " (" + detail + ")");
        if (code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_HOST ||
            code == CURLE_OPERATION_TIMEDOUT) {
            std::lock_guard lock(pool_->mutex);
            pool_->unreachable = curl_easy_strerror(code);
            pool_->unreachableAt = std::chrono::steady_clock::now();
        }
        throw CloudError(request.method + " " + target.origin() + target.path + ": " + reason);
    }
    check(curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &response.status));
    return response;
}

void HttpClient::retryServer() const {
    std::lock_guard lock(pool_->mutex);
    pool_->unreachable.clear();
}

} // namespace almanor::caldav
