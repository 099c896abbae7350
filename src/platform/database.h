// A small wrapper over SQLite's C interface: a connection with positional arguments and result
// sets read by index or by name, and a database queue that serialises every use of one connection
// on a serial dispatch queue (callers block until their block has run).
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/json.h"
#include "platform/scheduler.h"
#include "platform/types.h"

struct sqlite3;
struct sqlite3_stmt;

namespace quenby::platform {

// One bound parameter. Absent values (nullopt, null) bind as NULL; dates bind as their seconds
// since 1970, a double; numbers keep their integer or floating-point kind.
class SqlArg {
  public:
    using Value = std::variant<std::monostate, std::int64_t, double, std::string, Bytes>;

    SqlArg(std::nullptr_t) {}
    SqlArg(std::nullopt_t) {}
    SqlArg(int v) : v_(std::int64_t{v}) {}
    SqlArg(long v) : v_(std::int64_t{v}) {}
    SqlArg(long long v) : v_(std::int64_t{v}) {}
    SqlArg(unsigned v) : v_(std::int64_t{v}) {}
    SqlArg(double v) : v_(v) {}
    SqlArg(float v) : v_(static_cast<double>(v)) {}
    SqlArg(const char* v) : v_(std::string(v)) {}
    SqlArg(std::string v) : v_(std::move(v)) {}
    SqlArg(std::string_view v) : v_(std::string(v)) {}
    SqlArg(Bytes v) : v_(std::move(v)) {}
    SqlArg(Date d) : v_(d.timeIntervalSince1970()) {}
    SqlArg(const Number& n);
    // Numbers, strings and null as themselves, booleans as 0/1, anything else as its JSON text.
    SqlArg(const Json& j);
    template <class T>
    SqlArg(const std::optional<T>& v) {
        if (v) *this = SqlArg(*v);
    }

    const Value& value() const { return v_; }

  private:
    Value v_;
};

class Database;

// A prepared statement kept in its connection's cache, and whether a result set holds it.
struct CachedStatement {
    sqlite3_stmt* stmt;
    bool inUse;
};

// The rows of one query. Reading a column of the wrong kind converts as SQLite does.
class ResultSet {
  public:
    ~ResultSet();
    ResultSet(const ResultSet&) = delete;
    ResultSet& operator=(const ResultSet&) = delete;

    // Steps to the next row; false at the end or on an error (logged).
    bool next();
    void close();

    int columnCount() const;
    std::string columnNameForIndex(int i) const;
    // -1 when the query has no such column (compared without regard to case).
    int columnIndexForName(std::string_view name) const;

    bool columnIndexIsNull(int i) const;
    std::int64_t longLongIntForColumnIndex(int i) const;
    int intForColumnIndex(int i) const;
    double doubleForColumnIndex(int i) const;
    std::optional<std::string> stringForColumnIndex(int i) const;
    Bytes dataForColumnIndex(int i) const;
    // The column read as seconds since 1970; nothing for NULL.
    std::optional<Date> dateForColumnIndex(int i) const;
    // The value as the database holds it: integer, real, text, NULL (null) or blob (binary).
    Json objectForColumnIndex(int i) const;

    bool columnIsNull(std::string_view name) const {
        return at(
            name, [&](int i) { return columnIndexIsNull(i); }, true);
    }
    std::int64_t longLongIntForColumn(std::string_view name) const {
        return at(
            name, [&](int i) { return longLongIntForColumnIndex(i); }, std::int64_t{0});
    }
    int intForColumn(std::string_view name) const {
        return at(
            name, [&](int i) { return intForColumnIndex(i); }, 0);
    }
    double doubleForColumn(std::string_view name) const {
        return at(
            name, [&](int i) { return doubleForColumnIndex(i); }, 0.0);
    }
    std::optional<std::string> stringForColumn(std::string_view name) const {
        return at(
            name, [&](int i) { return stringForColumnIndex(i); }, std::optional<std::string>());
    }
    Bytes dataForColumn(std::string_view name) const {
        return at(
            name, [&](int i) { return dataForColumnIndex(i); }, Bytes());
    }
    std::optional<Date> dateForColumn(std::string_view name) const {
        return at(
            name, [&](int i) { return dateForColumnIndex(i); }, std::optional<Date>());
    }
    Json objectForColumn(std::string_view name) const {
        return at(
            name, [&](int i) { return objectForColumnIndex(i); }, Json());
    }

  private:
    friend class Database;
    ResultSet(Database* db, sqlite3_stmt* stmt, CachedStatement* cacheEntry, std::string sql);
    template <class F, class R>
    R at(std::string_view name, F f, R missing) const {
        int i = columnIndexForName(name);
        return i < 0 ? missing : f(i);
    }

    Database* db_;
    sqlite3_stmt* stmt_;
    CachedStatement* cacheEntry_;  // null for a statement kept out of the cache
    std::string sql_;
    mutable std::map<std::string, int, std::less<>> names_;  // lower-cased name -> index
};

// One connection. Not thread-safe: reach it through a DatabaseQueue. Prepared statements are
// cached by their text. Failures are logged ("DB Error: …", "DB Query: …", "DB Path: …") and
// answered as false / null.
class Database {
  public:
    // A null path opens a private in-memory database. Nothing when SQLite cannot open the file.
    static std::unique_ptr<Database> open(const std::optional<std::string>& path,
                                          std::string* error = nullptr);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    const std::optional<std::string>& databasePath() const { return path_; }
    void setBusyTimeout(int milliseconds);

    // A batch of statements in one string, as SQLite's exec runs it.
    bool executeStatements(const std::string& sql);
    bool executeUpdate(const std::string& sql, std::initializer_list<SqlArg> args = {});
    bool executeUpdate(const std::string& sql, const std::vector<SqlArg>& args);
    std::unique_ptr<ResultSet> executeQuery(const std::string& sql,
                                            std::initializer_list<SqlArg> args = {});
    std::unique_ptr<ResultSet> executeQuery(const std::string& sql,
                                            const std::vector<SqlArg>& args);

    bool beginExclusiveTransaction();
    bool commit();
    bool rollback();
    bool isInTransaction() const;

    int lastErrorCode() const;
    std::string lastErrorMessage() const;
    std::int64_t lastInsertRowId() const;
    int changes() const;
    sqlite3* sqliteHandle() const { return db_; }

  private:
    friend class ResultSet;
    Database(sqlite3* db, std::optional<std::string> path) : db_(db), path_(std::move(path)) {}
    // The statement for `sql`, and its cache entry (null for a statement kept out of the cache).
    sqlite3_stmt* prepare(const std::string& sql, CachedStatement*& entry);
    bool bind(sqlite3_stmt* stmt, const SqlArg* args, std::size_t n, const std::string& sql);
    void release(sqlite3_stmt* stmt, CachedStatement* entry);
    void logError(const std::string& sql) const;
    std::unique_ptr<ResultSet> query(const std::string& sql, const SqlArg* args, std::size_t n);
    bool update(const std::string& sql, const SqlArg* args, std::size_t n);

    sqlite3* db_;
    std::optional<std::string> path_;
    // Map nodes do not move: entries are held by pointer while a result set uses them.
    std::map<std::string, CachedStatement, std::less<>> cache_;
};

// Serialises all use of one connection on a serial dispatch queue.
class DatabaseQueue {
  public:
    struct Options {
        // Write-ahead log with synchronous=NORMAL: a commit costs no disk flush of its own, and a
        // killed process loses nothing committed (only a power cut can lose the latest commits).
        bool writeAheadLog = true;
        int busyTimeoutMs = 2000;
    };

    // Opens (creating) the database at `path`, or a private in-memory one for a null path. Null
    // when it cannot be opened; logged as "Could not create database queue for path %@".
    static std::shared_ptr<DatabaseQueue> databaseQueueWithPath(
        Scheduler& scheduler, const std::optional<std::string>& path, Options options);
    static std::shared_ptr<DatabaseQueue> databaseQueueWithPath(
        Scheduler& scheduler, const std::optional<std::string>& path) {
        return databaseQueueWithPath(scheduler, path, Options{});
    }
    ~DatabaseQueue();

    // Runs `block` on the queue with the connection; returns when it has run.
    void inDatabase(const std::function<void(Database&)>& block);
    // The same inside an exclusive transaction, committed unless the block sets `rollback`.
    // When the transaction cannot begin (the file is locked past the busy timeout, or cannot be
    // written), the block is not run: its work would fail statement by statement, each after a
    // wait of its own.
    void inTransaction(const std::function<void(Database&, bool& rollback)>& block);
    // The connection itself, for set-up before anyone else uses the queue.
    Database& database() { return *db_; }

  private:
    DatabaseQueue(std::unique_ptr<Database> db, std::shared_ptr<DispatchQueue> q)
        : db_(std::move(db)), queue_(std::move(q)) {}
    std::unique_ptr<Database> db_;
    std::shared_ptr<DispatchQueue> queue_;
};

// The schema set-up both databases share: the batch, then version 1 recorded once. On failure
// "Woah, SQL failed!" goes to the console and nothing more is tried.
void setupVersionedSchema(Database& db, const char* schema);
// Prints each query and its rows to standard output: the statement, a line of the column names
// (ended by `headerSuffix`), then one line per row, every cell followed by " | ".
void dumpQueries(Database& db, std::initializer_list<const char*> queries,
                 const char* headerSuffix);

}  // namespace quenby::platform
