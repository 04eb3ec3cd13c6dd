#include "storage/sql/Connection.h"

#include "storage/sql/Error.h"

#include <cstdint>
#include <limits>
#include <sqlite3.h>
#include <type_traits>

namespace almanor::sql {

void ConnectionDeleter::operator()(sqlite3* db) const noexcept {
    sqlite3_close_v2(db);
}

void StatementDeleter::operator()(sqlite3_stmt* statement) const noexcept {
    sqlite3_finalize(statement);
}

namespace {

// SQLITE_TRANSIENT without the macro's C-style cast: SQLite copies the bytes before returning.
// NOLINTNEXTLINE(performance-no-int-to-ptr): SQLite's own sentinel value, never called.
const auto transient = reinterpret_cast<sqlite3_destructor_type>(static_cast<std::intptr_t>(-1));

// A length for the int-sized binding calls; a negative one would mean "up to the first NUL".
int byteCount(std::size_t size) {
    if (size > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw Error("string or blob too big", SQLITE_TOOBIG);
    }
    return static_cast<int>(size);
}

StatementHandle prepareStatement(sqlite3* db, const Statement& statement) {
    sqlite3_stmt* raw = nullptr;
    check(db,
          sqlite3_prepare_v2(db, statement.text.data(), static_cast<int>(statement.text.size()),
                             &raw, nullptr),
          statement.text);
    StatementHandle handle(raw);
    if (!handle) {
        throw Error("Not a statement", SQLITE_MISUSE, statement.text);
    }

    // Statements are prepared afresh for every run, so there is nothing to reset before binding.
    int parameters = sqlite3_bind_parameter_count(raw);
    if (parameters != static_cast<int>(statement.bindings.size())) {
        throw Error(std::to_string(statement.bindings.size()) + " values bound to " +
                        std::to_string(parameters) + " parameters",
                    SQLITE_RANGE, statement.text);
    }
    for (int i = 1; i <= parameters; ++i) {
        int rc = std::visit(
            [&](const auto& value) {
                using V = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<V, std::nullptr_t>) {
                    return sqlite3_bind_null(raw, i);
                } else if constexpr (std::is_same_v<V, std::int64_t>) {
                    return sqlite3_bind_int64(raw, i, value);
                } else if constexpr (std::is_same_v<V, double>) {
                    return sqlite3_bind_double(raw, i, value);
                } else if constexpr (std::is_same_v<V, std::string>) {
                    return sqlite3_bind_text(raw, i, value.data(), byteCount(value.size()),
                                             transient);
                } else {
                    return sqlite3_bind_blob(raw, i, value.data(), byteCount(value.size()),
                                             transient);
                }
            },
            statement.bindings[static_cast<std::size_t>(i - 1)]);
        check(db, rc, statement.text);
    }
    return handle;
}

bool step(sqlite3* db, sqlite3_stmt* statement, std::string_view text) {
    return check(db, sqlite3_step(statement), text) == SQLITE_ROW;
}

// SQLite's settings for the whole process, said once before the library initialises.
void configureLibrary(bool oneThread) {
    static const bool configured = [oneThread] {
        // Allocation statistics take a global lock on every allocation, and nothing reads them.
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        // Without locks, each call on a row costs a third less.
        if (oneThread) {
            sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
        }
        return true;
    }();
    (void)configured;
}

} // namespace

void Connection::useFromOneThreadOnly() {
    configureLibrary(true);
}

Connection::Connection(const std::string& path, bool readonly) {
    configureLibrary(false);
    int flags = (readonly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
                SQLITE_OPEN_FULLMUTEX | SQLITE_OPEN_URI;
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
    handle_.reset(raw); // a failed open still hands back a handle to close
    check(raw, rc);
    check(raw, sqlite3_busy_timeout(raw, busyTimeoutMilliseconds));
}

Connection::DatabaseLock::DatabaseLock(sqlite3* db) : db_(db) {
    sqlite3_mutex_enter(sqlite3_db_mutex(db_));
}

Connection::DatabaseLock::~DatabaseLock() {
    sqlite3_mutex_leave(sqlite3_db_mutex(db_));
}

void Connection::run(const Statement& statement) {
    sync([&] {
        auto prepared = prepareStatement(handle_.get(), statement);
        while (step(handle_.get(), prepared.get(), statement.text)) {
        }
    });
}

Rows Connection::prepare(const Statement& statement) {
    return Rows(*this, statement);
}

Rows::Rows(Connection& connection, const Statement& statement)
    : connection_(connection), text_(statement.text), row_(*this) {
    connection_.sync([&] {
        statement_ = prepareStatement(connection_.handle(), statement);
        int count = sqlite3_column_count(statement_.get());
        names_.reserve(static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i) {
            const char* name = sqlite3_column_name(statement_.get(), i);
            if (name == nullptr) {
                throw Error("out of memory", SQLITE_NOMEM, text_);
            }
            auto [it, inserted] = names_.emplace(name, i);
            if (!inserted) {
                it->second = -1;
            }
        }
    });
}

Rows::~Rows() {
    // Finalising can set the handle's error state, so it too waits for the queue.
    connection_.sync([&] { statement_.reset(); });
}

bool Rows::next() {
    // Stepping past the end would start the query over.
    if (done_) {
        return false;
    }
    done_ = !connection_.sync([&] { return step(connection_.handle(), statement_.get(), text_); });
    return !done_;
}

int Rows::indexOf(const ColumnBase& column) const {
    auto it = names_.find(column.name());
    if (it == names_.end()) {
        throw Error("No such column `" + column.text() + "`");
    }
    if (it->second < 0) {
        throw Error("Ambiguous column `" + column.text() + "`");
    }
    return it->second;
}

Row::Storage Row::storage(int index) const {
    switch (sqlite3_column_type(rows_.statement_.get(), index)) {
    case SQLITE_INTEGER:
        return Storage::integer;
    case SQLITE_FLOAT:
        return Storage::real;
    case SQLITE_TEXT:
        return Storage::text;
    case SQLITE_BLOB:
        return Storage::blob;
    default:
        return Storage::null;
    }
}

std::int64_t Row::integer(int index) const {
    return sqlite3_column_int64(rows_.statement_.get(), index);
}

std::string_view Row::text(int index) const {
    auto* statement = rows_.statement_.get();
    const unsigned char* bytes = sqlite3_column_text(statement, index);
    if (bytes == nullptr) {
        return {};
    }
    return {reinterpret_cast<const char*>(bytes),
            static_cast<std::size_t>(sqlite3_column_bytes(statement, index))};
}

std::int64_t Connection::changes() {
    return sqlite3_changes64(handle_.get());
}

} // namespace almanor::sql
