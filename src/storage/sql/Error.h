#pragma once

#include "platform/Export.h"

#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;

namespace almanor::sql {

// A failed database call, carrying SQLite's message and result code and, where there is one, the
// statement. `what()` is the description that ends up in log lines: "message (code: N)". Errors
// raised by this layer itself rather than by SQLite (a NULL read into a non-optional value, a
// missing column, text that is not a date) have code 0 and describe themselves by message alone.
class ALMANOR_EXPORT Error : public std::runtime_error {
  public:
    Error(std::string message, int code, std::string statement = {});
    explicit Error(std::string message) : Error(std::move(message), 0) {}

    const std::string& message() const { return message_; }
    int code() const { return code_; }
    const std::string& statement() const { return statement_; }

  private:
    std::string message_;
    int code_;
    std::string statement_;
};

// The one place where a SQLite result code becomes an error: returns `resultCode` when it reports
// success (OK, ROW or DONE), else throws with the connection's current message and code. Callers
// hold the connection's queue, so the message is the one of this call.
ALMANOR_EXPORT int check(sqlite3* db, int resultCode, std::string_view statement = {});

} // namespace almanor::sql
