#pragma once

#include "platform/Export.h"
#include "sync/SyncPass.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace almanor {

// What a child `almanor sync` tells the tray that started it, on a pipe of its own:
//   "pulled\n"                       its pull has ended
//   "password N\n" and N bytes       the account's password, for the next child (PasswordHandover)
//   "done P Q R S U problem\n"       how the pass ended: PassResult's fields in their order
// The log lines go to its standard error as usual.
class ALMANOR_EXPORT PassReport {
  public:
    static std::string pulledLine();
    static std::string passwordRecord(std::string_view handover);
    static std::string doneLine(const PassResult& result);
    // The largest password record read; a longer one is not handed on.
    static constexpr std::size_t maxPassword = std::size_t{16} * 1024;

    explicit PassReport(std::function<void()> pulled) : pulled_(std::move(pulled)) {}
    ~PassReport();
    PassReport(const PassReport&) = delete;
    PassReport& operator=(const PassReport&) = delete;

    // The next piece of the report, cut anywhere. What breaks the rules above ends the reading:
    // the rest is ignored.
    void feed(std::string_view piece);
    // How the pass ended, once the child has said so.
    const std::optional<PassResult>& result() const { return result_; }
    // The password handed on; empty when none.
    const std::string& password() const { return password_; }

  private:
    bool line(std::string_view text);

    std::function<void()> pulled_;
    std::string buffer_;
    std::size_t passwordLeft_ = 0; // bytes of a password record still to come
    bool broken_ = false;
    std::optional<PassResult> result_;
    std::string password_;
};

} // namespace almanor
