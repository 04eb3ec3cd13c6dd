#pragma once

#include "platform/Export.h"

#include <functional>
#include <mutex>
#include <string>

namespace almanor {

struct CloudAccount;

// The account's password as one process hands it to the next: the tray keeps what its sync child
// had and gives it to the next child, so that the keyring or a password command is not asked
// every pass. What is handed on names the account it was had for, and serves no other.
class ALMANOR_EXPORT PasswordHandover {
  public:
    // `given`: what the previous process handed on; empty when nothing.
    explicit PasswordHandover(std::string given = {});
    ~PasswordHandover();
    PasswordHandover(const PasswordHandover&) = delete;
    PasswordHandover& operator=(const PasswordHandover&) = delete;

    // The password for `account`: the given one when it was had for this account, else ask()'s.
    std::string password(const CloudAccount& account, const std::function<std::string()>& ask);
    // The server refused the user name or password: nothing is handed on.
    void refused();
    // What to hand on: empty when no password was had, or the server refused it.
    std::string handOn() const;

  private:
    mutable std::mutex mutex_;
    std::string given_;
    std::string had_; // handed on as it is
    bool refused_ = false;
};

} // namespace almanor
