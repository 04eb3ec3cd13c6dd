#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace almanor::caldav {

// What one request may cost. A server that trickles, stalls or never answers ends each request
// within `deadline`, and makes the rest of the pass fail at once (until forgetUnreachable()).
struct Limits {
    std::chrono::seconds connect{10};
    std::chrono::seconds stall{30};     // no byte either way
    std::chrono::seconds deadline{120}; // the whole request, however it trickles
    // A whole listing's first byte: a server reads every event of a big calendar before it
    // answers the first listing after its start (Radicale: 73 s for 20,000 on an idle machine).
    // The deadline then counts from that byte.
    std::chrono::seconds firstByte{300};
    // The largest answer read (a full listing of 100,000 events is about 120 MB).
    std::size_t answerBytes = std::size_t(256) << 20;
};

struct HttpRequest {
    HttpRequest(std::string method_, std::string url_, std::vector<std::string> headers_ = {},
                std::string body_ = {})
        : method(std::move(method_)), url(std::move(url_)), headers(std::move(headers_)),
          body(std::move(body_)) {}

    std::string method;
    std::string url;
    std::vector<std::string> headers;
    std::string body;
    // A 207 (Multi-Status) answer is handed here piece by piece as it arrives, instead of being
    // kept in `body`; a CloudError thrown here ends the request with that error.
    std::function<void(std::string_view)> stream;
    // Other answers are kept up to this size; beyond it the rest is not read (`truncated`).
    std::size_t maxBody = std::size_t(1) << 20;
    // A whole listing: the server may be quiet for long before its first byte (Limits::firstByte).
    bool slowToStart = false;
};

struct HttpResponse {
    long status = 0;
    std::string body;
    std::string etag;
    std::string location;
    bool streamed = false;
    bool truncated = false;
};

// Parts of an absolute URL, and the rules that decide where a request may go.
struct Url {
    std::string scheme; // lower case
    std::string host;   // lower case, without brackets
    int port = 0;
    std::string path; // as sent, percent-encoded

    // Throws CloudError for anything but an absolute http(s) URL without user information; the
    // message shows the URL without user information.
    static Url parse(const std::string& text);
    // `href` (absolute, root-relative, relative or percent-encoded whole) against `base`; the
    // result never carries user information.
    static std::string resolve(const std::string& base, const std::string& href);

    // "https://host:443", IPv6 hosts in brackets.
    std::string origin() const;
    bool isLoopback() const;
};

std::string percentDecode(std::string_view text);
// Encodes everything but unreserved characters, for one path segment.
std::string percentEncodeSegment(std::string_view text);
// The last non-empty segment of a URL's path, percent-decoded.
std::string lastSegment(const std::string& url);

// Sends requests to one server. The password goes, preemptively as Basic authentication, only to
// the server's own origin and to the origins it named itself (trustOrigin); plain http only to a
// loopback address; TLS always verified; redirects never followed.
class HttpClient {
  public:
    using PasswordSource = std::function<std::string()>;

    // Throws CloudError, as parseServer does, for a server that could never be used.
    HttpClient(std::string server, std::string user, PasswordSource password, Limits limits = {});

    // The server's URL; throws CloudError when it is none, or is plain http to another machine.
    static Url parseServer(const std::string& server);

    // Throws CloudError (one line naming the server, never user information) when no answer
    // could be had; any HTTP status is returned.
    HttpResponse perform(const HttpRequest& request) const;

    const std::string& server() const { return server_; }
    const Limits& limits() const { return limits_; }

    // Lets the credentials go to `url`'s origin as well, when it is https (or http on this
    // machine). Returns whether the origin is trusted now.
    bool trustOrigin(const std::string& url) const;
    // The origins trusted besides the server's own, in the order they were added.
    std::vector<std::string> trustedOrigins() const;

    // After the server could not be reached, requests fail at once until this is called: a new
    // pass asks again.
    void forgetUnreachable() const;
    // Ends every request in flight within a tenth of a second and refuses new ones.
    void cancel() const;

    struct HandlePool;

  private:
    std::shared_ptr<HandlePool> pool_;
    std::string server_;
    std::string user_;
    PasswordSource password_;
    Limits limits_;
};

} // namespace almanor::caldav
