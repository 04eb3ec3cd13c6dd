#include "storage/sql/Error.h"

#include <sqlite3.h>

namespace almanor::sql {

namespace {

std::string describe(const std::string& message, int code) {
    if (code == 0) {
        return message;
    }
    return message + " (code: " + std::to_string(code) + ")";
}

} // namespace

Error::Error(std::string message, int code, std::string statement)
    : std::runtime_error(describe(message, code)), message_(std::move(message)), code_(code),
      statement_(std::move(statement)) {}

int check(sqlite3* db, int resultCode, std::string_view statement) {
    if (resultCode == SQLITE_OK || resultCode == SQLITE_ROW || resultCode == SQLITE_DONE) {
        return resultCode;
    }
    // Without a handle (the open itself ran out of memory) only the generic text is known.
    std::string message = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(resultCode);
    int code = db != nullptr ? sqlite3_errcode(db) : 0;
    if (code == SQLITE_OK) {
        code = resultCode; // a misuse that the handle did not record
    }
    throw Error(std::move(message), code, std::string(statement));
}

} // namespace almanor::sql
