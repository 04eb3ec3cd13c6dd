#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace almanor::caldav {

// How long a request may wait: for the connection, and without any progress once connected.
struct Timeouts {
    std::chrono::seconds connect{10};
    std::chrono::seconds stall{30};
};

struct HttpRequest {
    std::string method;
    std::string url;
    std::vector<std::string> headers;
    std::string body;
};

struct HttpResponse {
    long status = 0;
    std::string body;
    std::string etag;
    std::string location;
};

// Parts of an absolute URL, and the rules that decide where a request may go.
struct Url {
    std::string scheme; // lower case
    std::string host;   // lower case, without brackets
    int port = 0;
    std::string path; // as sent, percent-encoded

    // Throws CloudError for anything but an absolute http(s) URL without user information.
    static Url parse(const std::string& text);
    // `href` (absolute, root-relative, relative or percent-encoded whole) against `base`.
    static std::string resolve(const std::string& base, const std::string& href);

    std::string origin() const;
    bool isLoopback() const;
};

std::string percentDecode(std::string_view text);
// Encodes everything but unreserved characters, for one path segment.
std::string percentEncodeSegment(std::string_view text);
// The last non-empty segment of a URL's path, percent-decoded.
std::string lastSegment(const std::string& url);

// Sends requests to one server. The password goes, preemptively as Basic authentication, only
// to the server's own origin; plain http only to a loopback address; TLS always verified.
class HttpClient {
  public:
    using PasswordSource = std::function<std::string()>;

    HttpClient(std::string server, std::string user, PasswordSource password, Timeouts timeouts);

    // Throws CloudError when no answer could be had; any HTTP status is returned.
    HttpResponse perform(const HttpRequest& request) const;

    const std::string& server() const { return server_; }

    // After the server could not be reached (no connection, or no answer within the waits),
    // requests in the next `unreachableWindow` fail at once with the same reason; this forgets
    // that, for a new pass.
    void retryServer() const;
    static constexpr std::chrono::seconds unreachableWindow{10};

    struct HandlePool;

  private:
    std::shared_ptr<HandlePool> pool_;
    std::string server_;
    std::string origin_;
    std::string user_;
    PasswordSource password_;
    Timeouts timeouts_;
};

} // namespace almanor::caldav
