#include "sync/PassReport.h"

#include <algorithm>
#include <charconv>

namespace almanor {

namespace {

// Lines are short: anything longer is not a report.
constexpr std::size_t maxLine = 4096;

void wipe(std::string& text) {
    std::fill(text.begin(), text.end(), '\0');
    text.clear();
}

// The next space-separated number of `text`, taken off its front.
std::optional<std::size_t> number(std::string_view& text) {
    std::size_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end == text.data())
        return std::nullopt;
    text.remove_prefix(std::size_t(end - text.data()));
    if (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    return value;
}

} // namespace

std::string PassReport::pulledLine() {
    return "pulled\n";
}

std::string PassReport::passwordRecord(std::string_view handover) {
    return "password " + std::to_string(handover.size()) + "\n" + std::string(handover);
}

std::string PassReport::doneLine(const PassResult& r) {
    std::string problem = r.problem.substr(0, r.problem.find('\n'));
    return "done " + std::to_string(int(r.pulled)) + " " + std::to_string(int(r.pushed)) + " " +
           std::to_string(r.received) + " " + std::to_string(r.sent) + " " +
           std::to_string(int(r.unavailable)) + " " + problem + "\n";
}

PassReport::~PassReport() {
    wipe(buffer_);
    wipe(password_);
}

void PassReport::feed(std::string_view piece) {
    buffer_.append(piece);
    std::size_t used = 0;
    while (!broken_) {
        std::string_view rest = std::string_view(buffer_).substr(used);
        if (passwordLeft_ > 0) {
            std::size_t n = std::min(passwordLeft_, rest.size());
            password_.append(rest.substr(0, n));
            passwordLeft_ -= n;
            used += n;
            if (passwordLeft_ > 0)
                break;
            continue;
        }
        std::size_t end = rest.find('\n');
        if (end == std::string_view::npos) {
            broken_ = rest.size() > maxLine;
            break;
        }
        used += end + 1;
        broken_ = !line(rest.substr(0, end));
    }
    // What was read is wiped, as it may hold the password.
    std::fill(buffer_.begin(), buffer_.begin() + std::ptrdiff_t(used), '\0');
    buffer_.erase(0, used);
    if (broken_)
        wipe(buffer_);
}

bool PassReport::line(std::string_view text) {
    if (text == "pulled") {
        if (pulled_)
            pulled_();
        return true;
    }
    constexpr std::string_view password = "password ";
    if (text.substr(0, password.size()) == password) {
        text.remove_prefix(password.size());
        auto size = number(text);
        if (!size || *size == 0 || *size > maxPassword || !text.empty())
            return false;
        wipe(password_);
        passwordLeft_ = *size;
        return true;
    }
    constexpr std::string_view done = "done ";
    if (text.substr(0, done.size()) != done)
        return false;
    text.remove_prefix(done.size());
    PassResult r;
    auto pulled = number(text);
    auto pushed = number(text);
    auto received = number(text);
    auto sent = number(text);
    auto unavailable = number(text);
    if (!pulled || !pushed || !received || !sent || !unavailable)
        return false;
    r.pulled = *pulled != 0;
    r.pushed = *pushed != 0;
    r.received = *received;
    r.sent = *sent;
    r.unavailable = *unavailable != 0;
    r.problem = std::string(text);
    result_ = std::move(r);
    return true;
}

} // namespace almanor
