#pragma once

#include "platform/Export.h"
#include "storage/sql/Column.h"
#include "storage/sql/Table.h"

#include <cstdint>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace almanor::sql {

struct ALMANOR_EXPORT ConnectionDeleter {
    void operator()(sqlite3* db) const noexcept;
};
struct ALMANOR_EXPORT StatementDeleter {
    void operator()(sqlite3_stmt* statement) const noexcept;
};
using ConnectionHandle = std::unique_ptr<sqlite3, ConnectionDeleter>;
using StatementHandle = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

class Rows;

// A column's position in one result, looked up once and then used for every row.
template <class T> struct ColumnIndex {
    int index;
    const Column<T>* column;
};

// The current row of a result. Valid until the result steps again.
class ALMANOR_EXPORT Row {
  public:
    enum class Storage { integer, real, text, blob, null };

    template <class T> T get(const Column<T>& column) const;
    template <class T> T get(const ColumnIndex<T>& index) const {
        return ValueTraits<T>::read(*this, index.index, *index.column);
    }

    // The raw value in SQLite's storage class; the value types' readers convert from these.
    Storage storage(int index) const;
    std::int64_t integer(int index) const;
    // Valid until the row steps on.
    std::string_view text(int index) const;

  private:
    friend class Rows;
    explicit Row(const Rows& rows) : rows_(rows) {}
    const Rows& rows_;
};

// One connection to a database file. Every statement runs on the connection's private serial
// queue (a recursive mutex: a call made while already on the queue, from the same thread, runs
// directly instead of deadlocking), and the handle is opened in full-mutex mode as well, so the
// connection may be used from any thread.
class ALMANOR_EXPORT Connection {
  public:
    // The command line and the tray write the same file; a writer waits this long for the other
    // to finish instead of failing at once with "database is locked".
    static constexpr int busyTimeoutMilliseconds = 5000;

    // Opens read-write (creating the file) or read-only, in full-mutex mode, with URI file names
    // understood. Throws sql::Error with SQLite's message and code.
    explicit Connection(const std::string& path, bool readonly = false);
    Connection(const Connection&) = delete;

    // For a process that opens its connections and uses them on one thread only (the local
    // commands): SQLite then takes no locks at all. Before the first connection is opened.
    static void useFromOneThreadOnly();
    Connection& operator=(const Connection&) = delete;

    class DatabaseLock {
      public:
        explicit DatabaseLock(sqlite3* db);
        ~DatabaseLock();
        DatabaseLock(const DatabaseLock&) = delete;
        DatabaseLock& operator=(const DatabaseLock&) = delete;

      private:
        sqlite3* db_;
    };

    // Runs `work` on the connection's queue.
    template <class Work> decltype(auto) sync(Work&& work) {
        std::lock_guard lock(queue_);
        // Holding SQLite's own handle mutex too makes every call inside a cheap re-entry
        // instead of a lock and unlock of its own: reading 10,000 rows makes 120,000 calls.
        DatabaseLock database(handle_.get());
        return std::forward<Work>(work)();
    }

    // Runs one statement to completion (CREATE TABLE, INSERT, UPDATE). Throws sql::Error.
    void run(const Statement& statement);
    void run(std::string_view text) { run(Statement{std::string(text), {}}); }

    // Prepares a query, binds its values and returns its rows to iterate. Throws sql::Error.
    Rows prepare(const Statement& statement);

    // Rows changed by the last INSERT, UPDATE or DELETE of this connection; call it inside the
    // same sync() as the statement.
    std::int64_t changes();

    // For inspection (tracing in tests); statements go through run and prepare.
    sqlite3* handle() const { return handle_.get(); }

  private:
    friend class Rows;
    ConnectionHandle handle_;
    std::recursive_mutex queue_;
};

// The rows of one prepared query, stepped through in order: range-for or next() and row().
// Neither copyable nor movable: rows read from it refer back to it.
class ALMANOR_EXPORT Rows {
  public:
    Rows(Connection& connection, const Statement& statement);
    ~Rows();
    Rows(const Rows&) = delete;
    Rows& operator=(const Rows&) = delete;

    // Steps to the next row; false when there is none, and from then on. Throws sql::Error.
    bool next();
    const Row& row() const { return row_; }

    // The index of the result column with the column's name. Throws "No such column `...`" or
    // "Ambiguous column `...`".
    int indexOf(const ColumnBase& column) const;
    template <class T> ColumnIndex<T> resolve(const Column<T>& column) const {
        return {indexOf(column), &column};
    }

    const std::string& text() const { return text_; }

    class Iterator {
      public:
        using value_type = Row;
        using difference_type = std::ptrdiff_t;
        explicit Iterator(Rows* rows) : rows_(rows) {}
        const Row& operator*() const { return rows_->row(); }
        Iterator& operator++() {
            if (!rows_->next()) {
                rows_ = nullptr;
            }
            return *this;
        }
        void operator++(int) { ++*this; }
        friend bool operator==(const Iterator& i, std::default_sentinel_t) {
            return i.rows_ == nullptr;
        }

      private:
        Rows* rows_;
    };

    Iterator begin() { return next() ? Iterator(this) : Iterator(nullptr); }
    std::default_sentinel_t end() const { return {}; }

  private:
    friend class Row;
    Connection& connection_;
    std::string text_;
    StatementHandle statement_;
    // Result column name -> index, -1 for a name that occurs twice. Built once per statement.
    std::unordered_map<std::string, int> names_;
    Row row_;
    bool done_ = false;
};

template <class T> T Row::get(const Column<T>& column) const {
    return ValueTraits<T>::read(*this, rows_.indexOf(column), column);
}

template <class T>
std::optional<T> ValueTraits<std::optional<T>>::read(const Row& row, int index,
                                                     const ColumnBase& column) {
    if (row.storage(index) == Row::Storage::null) {
        return std::nullopt;
    }
    return ValueTraits<T>::read(row, index, column);
}

} // namespace almanor::sql
