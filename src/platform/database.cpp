#include "platform/database.h"

#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "platform/console.h"

namespace quenby::platform {

namespace {

std::string lower(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

}  // namespace

SqlArg::SqlArg(const Number& n) {
    if (n.isInteger()) {
        v_ = n.longLongValue();
    } else {
        v_ = n.doubleValue();
    }
}

SqlArg::SqlArg(const Json& j) {
    if (auto n = Number::fromJson(j)) {
        *this = SqlArg(*n);
    } else if (j.is_string()) {
        v_ = j.get<std::string>();
    } else if (j.is_boolean()) {
        v_ = std::int64_t{j.get<bool>() ? 1 : 0};
    } else if (!j.is_null()) {
        v_ = j.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

// ---------------------------------------------------------------------------------------------

std::unique_ptr<Database> Database::open(const std::optional<std::string>& path,
                                         std::string* error) {
    sqlite3* db = nullptr;
    std::string name = path ? *path : ":memory:";
    int rc =
        sqlite3_open_v2(name.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        if (error) *error = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_extended_result_codes(db, 0);
    return std::unique_ptr<Database>(new Database(db, path));
}

Database::~Database() {
    for (auto& [sql, c] : cache_) sqlite3_finalize(c.stmt);
    sqlite3_close_v2(db_);
}

void Database::setBusyTimeout(int ms) {
    sqlite3_busy_timeout(db_, ms);
}

int Database::lastErrorCode() const {
    return sqlite3_errcode(db_);
}
std::string Database::lastErrorMessage() const {
    return sqlite3_errmsg(db_);
}
std::int64_t Database::lastInsertRowId() const {
    return sqlite3_last_insert_rowid(db_);
}
int Database::changes() const {
    return sqlite3_changes(db_);
}
bool Database::isInTransaction() const {
    return sqlite3_get_autocommit(db_) == 0;
}

void Database::logError(const std::string& sql) const {
    consoleWrite("DB Error: " + std::to_string(lastErrorCode()) + " \"" + lastErrorMessage() +
                 "\"");
    consoleWrite("DB Query: " + sql);
    consoleWrite("DB Path: " + path_.value_or("(in memory)"));
}

bool Database::executeStatements(const std::string& sql) {
    char* err = nullptr;
    int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err);
    sqlite3_free(err);
    if (rc != SQLITE_OK) {
        logError(sql);
        return false;
    }
    return true;
}

sqlite3_stmt* Database::prepare(const std::string& sql, CachedStatement*& entry) {
    entry = nullptr;
    auto it = cache_.find(sql);
    if (it != cache_.end() && !it->second.inUse) {
        it->second.inUse = true;
        entry = &it->second;
        return it->second.stmt;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size()), &stmt, nullptr) !=
        SQLITE_OK) {
        logError(sql);
        sqlite3_finalize(stmt);
        return nullptr;
    }
    // A statement already in use (the same query nested in itself) stays out of the cache.
    if (it == cache_.end()) entry = &cache_.emplace(sql, CachedStatement{stmt, true}).first->second;
    return stmt;
}

void Database::release(sqlite3_stmt* stmt, CachedStatement* entry) {
    if (!stmt) return;
    if (!entry) {
        sqlite3_finalize(stmt);
        return;
    }
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    entry->inUse = false;
}

bool Database::bind(sqlite3_stmt* stmt, const SqlArg* args, std::size_t n, const std::string& sql) {
    if (static_cast<int>(n) != sqlite3_bind_parameter_count(stmt)) {
        consoleWrite("DB Error: " + std::to_string(n) + " arguments for " +
                     std::to_string(sqlite3_bind_parameter_count(stmt)) + " parameters");
        consoleWrite("DB Query: " + sql);
        return false;
    }
    for (std::size_t i = 0; i < n; ++i) {
        int idx = static_cast<int>(i) + 1;
        const auto& v = args[i].value();
        int rc = SQLITE_OK;
        if (auto* iv = std::get_if<std::int64_t>(&v)) {
            rc = sqlite3_bind_int64(stmt, idx, *iv);
        } else if (auto* dv = std::get_if<double>(&v)) {
            rc = sqlite3_bind_double(stmt, idx, *dv);
        } else if (auto* sv = std::get_if<std::string>(&v)) {
            rc = sqlite3_bind_text64(stmt, idx, sv->data(), sv->size(), SQLITE_TRANSIENT,
                                     SQLITE_UTF8);
        } else if (auto* bv = std::get_if<Bytes>(&v)) {
            rc = sqlite3_bind_blob64(stmt, idx, bv->data(), bv->size(), SQLITE_TRANSIENT);
        } else {
            rc = sqlite3_bind_null(stmt, idx);
        }
        if (rc != SQLITE_OK) {
            logError(sql);
            return false;
        }
    }
    return true;
}

bool Database::update(const std::string& sql, const SqlArg* args, std::size_t n) {
    CachedStatement* entry = nullptr;
    sqlite3_stmt* stmt = prepare(sql, entry);
    if (!stmt) return false;
    bool ok = bind(stmt, args, n, sql);
    if (ok) {
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        }
        if (rc != SQLITE_DONE) {
            logError(sql);
            ok = false;
        }
    }
    release(stmt, entry);
    return ok;
}

bool Database::executeUpdate(const std::string& sql, std::initializer_list<SqlArg> args) {
    return update(sql, args.begin(), args.size());
}

bool Database::executeUpdate(const std::string& sql, const std::vector<SqlArg>& args) {
    return update(sql, args.data(), args.size());
}

std::unique_ptr<ResultSet> Database::query(const std::string& sql, const SqlArg* args,
                                           std::size_t n) {
    CachedStatement* entry = nullptr;
    sqlite3_stmt* stmt = prepare(sql, entry);
    if (!stmt) return nullptr;
    if (!bind(stmt, args, n, sql)) {
        release(stmt, entry);
        return nullptr;
    }
    return std::unique_ptr<ResultSet>(new ResultSet(this, stmt, entry, sql));
}

std::unique_ptr<ResultSet> Database::executeQuery(const std::string& sql,
                                                  std::initializer_list<SqlArg> args) {
    return query(sql, args.begin(), args.size());
}

std::unique_ptr<ResultSet> Database::executeQuery(const std::string& sql,
                                                  const std::vector<SqlArg>& args) {
    return query(sql, args.data(), args.size());
}

bool Database::beginExclusiveTransaction() {
    return executeUpdate("begin exclusive transaction");
}
bool Database::commit() {
    return executeUpdate("commit transaction");
}
bool Database::rollback() {
    return executeUpdate("rollback transaction");
}

// ---------------------------------------------------------------------------------------------

ResultSet::ResultSet(Database* db, sqlite3_stmt* stmt, CachedStatement* cacheEntry, std::string sql)
    : db_(db), stmt_(stmt), cacheEntry_(cacheEntry), sql_(std::move(sql)) {}

ResultSet::~ResultSet() {
    close();
}

void ResultSet::close() {
    if (!stmt_) return;
    db_->release(stmt_, cacheEntry_);
    stmt_ = nullptr;
}

bool ResultSet::next() {
    if (!stmt_) return false;
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) db_->logError(sql_);
    close();
    return false;
}

int ResultSet::columnCount() const {
    return stmt_ ? sqlite3_column_count(stmt_) : 0;
}

std::string ResultSet::columnNameForIndex(int i) const {
    const char* n = stmt_ ? sqlite3_column_name(stmt_, i) : nullptr;
    return n ? n : "";
}

int ResultSet::columnIndexForName(std::string_view name) const {
    if (!stmt_) return -1;
    if (names_.empty()) {
        for (int i = 0; i < columnCount(); ++i) names_.emplace(lower(columnNameForIndex(i)), i);
    }
    auto it = names_.find(lower(name));
    return it == names_.end() ? -1 : it->second;
}

bool ResultSet::columnIndexIsNull(int i) const {
    return !stmt_ || sqlite3_column_type(stmt_, i) == SQLITE_NULL;
}

std::int64_t ResultSet::longLongIntForColumnIndex(int i) const {
    return stmt_ ? sqlite3_column_int64(stmt_, i) : 0;
}

int ResultSet::intForColumnIndex(int i) const {
    return stmt_ ? sqlite3_column_int(stmt_, i) : 0;
}

double ResultSet::doubleForColumnIndex(int i) const {
    return stmt_ ? sqlite3_column_double(stmt_, i) : 0;
}

std::optional<std::string> ResultSet::stringForColumnIndex(int i) const {
    if (columnIndexIsNull(i)) return std::nullopt;
    auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, i));
    int n = sqlite3_column_bytes(stmt_, i);
    return p ? std::string(p, static_cast<std::size_t>(n)) : std::string();
}

Bytes ResultSet::dataForColumnIndex(int i) const {
    if (columnIndexIsNull(i)) return {};
    auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt_, i));
    int n = sqlite3_column_bytes(stmt_, i);
    return p ? Bytes(p, p + n) : Bytes();
}

std::optional<Date> ResultSet::dateForColumnIndex(int i) const {
    if (columnIndexIsNull(i)) return std::nullopt;
    return Date::fromSecondsSince1970(doubleForColumnIndex(i));
}

Json ResultSet::objectForColumnIndex(int i) const {
    if (!stmt_) return nullptr;
    switch (sqlite3_column_type(stmt_, i)) {
        case SQLITE_INTEGER:
            return sqlite3_column_int64(stmt_, i);
        case SQLITE_FLOAT:
            return sqlite3_column_double(stmt_, i);
        case SQLITE_TEXT:
            // Text from a file is not trusted to be UTF-8; keep it printable as JSON.
            return validUtf8(*stringForColumnIndex(i));
        case SQLITE_BLOB:
            return Json::binary(dataForColumnIndex(i));
        default:
            return nullptr;
    }
}

// ---------------------------------------------------------------------------------------------

std::shared_ptr<DatabaseQueue> DatabaseQueue::databaseQueueWithPath(
    Scheduler& scheduler, const std::optional<std::string>& path, Options options) {
    std::string why;
    auto db = Database::open(path, &why);
    if (!db) {
        consoleWrite("Could not create database queue for path " + path.value_or("(null)"));
        return nullptr;
    }
    db->setBusyTimeout(options.busyTimeoutMs);
    if (options.writeAheadLog && path) {
        db->executeStatements("PRAGMA journal_mode=WAL;");
        db->executeStatements("PRAGMA synchronous=NORMAL;");
    }
    auto q = scheduler.createSerialQueue("com.quenby.database." + path.value_or("memory"));
    return std::shared_ptr<DatabaseQueue>(new DatabaseQueue(std::move(db), std::move(q)));
}

DatabaseQueue::~DatabaseQueue() = default;

void DatabaseQueue::inDatabase(const std::function<void(Database&)>& block) {
    queue_->sync([&] { block(*db_); });
}

void DatabaseQueue::inTransaction(const std::function<void(Database&, bool&)>& block) {
    queue_->sync([&] {
        // Like the wrapper this one stands for, a refused BEGIN does not skip the block: its
        // statements then run on their own, and the commit below fails harmlessly.
        db_->beginExclusiveTransaction();
        bool rollback = false;
        block(*db_, rollback);
        if (rollback) {
            db_->rollback();
        } else if (!db_->commit()) {
            db_->rollback();
        }
    });
}

void setupVersionedSchema(Database& db, const char* schema) {
    if (!db.executeStatements(schema)) {
        consoleWrite("Woah, SQL failed!");
        return;
    }
    auto rs = db.executeQuery("select count(*) from schema_version where version = 1");
    if (rs && rs->next() && rs->intForColumnIndex(0) == 0) {
        rs->close();
        db.executeUpdate("insert into schema_version (version) values (1);");
    }
}

void dumpQueries(Database& db, std::initializer_list<const char*> queries,
                 const char* headerSuffix) {
    for (const char* q : queries) {
        std::printf("%s\n", q);
        auto rs = db.executeQuery(q);
        if (!rs) continue;
        std::string names;
        for (int i = 0; i < rs->columnCount(); ++i) names += rs->columnNameForIndex(i) + " | ";
        std::printf("| %s%s", names.c_str(), headerSuffix);
        while (rs->next()) {
            std::string row;
            for (int i = 0; i < rs->columnCount(); ++i) {
                row += rs->stringForColumnIndex(i).value_or("(null)") + " | ";
            }
            std::printf("| %s |\n", row.c_str());
        }
    }
    std::fflush(stdout);
}

}  // namespace quenby::platform
