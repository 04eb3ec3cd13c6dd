#include "cloud/PasswordHandover.h"

#include "cloud/CloudAccount.h"

#include <algorithm>

namespace almanor {

namespace {

void wipe(std::string& text) {
    std::fill(text.begin(), text.end(), '\0');
    text.clear();
}

// The account's fields, each ended by a NUL, which none of them nor the password can hold.
std::string accountPrefix(const CloudAccount& account) {
    std::string prefix;
    for (const auto* field : {&account.server, &account.user, &account.passwordCommand}) {
        prefix += *field;
        prefix += '\0';
    }
    return prefix;
}

} // namespace

PasswordHandover::PasswordHandover(std::string given) : given_(std::move(given)) {}

PasswordHandover::~PasswordHandover() {
    wipe(given_);
    wipe(had_);
}

std::string PasswordHandover::password(const CloudAccount& account,
                                       const std::function<std::string()>& ask) {
    std::string prefix = accountPrefix(account);
    {
        std::lock_guard lock(mutex_);
        if (given_.size() > prefix.size() && given_.compare(0, prefix.size(), prefix) == 0) {
            had_ = given_;
            return given_.substr(prefix.size());
        }
    }
    std::string password = ask();
    std::lock_guard lock(mutex_);
    wipe(had_);
    if (password.find('\0') == std::string::npos)
        had_ = prefix + password;
    return password;
}

void PasswordHandover::refused() {
    std::lock_guard lock(mutex_);
    refused_ = true;
}

std::string PasswordHandover::handOn() const {
    std::lock_guard lock(mutex_);
    return refused_ ? std::string() : had_;
}

} // namespace almanor
