#include "platform/database.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "support/test_support.h"

using namespace quenby;
using namespace quenby::platform;

TEST(Database, BindsEveryKindAndReadsRowsByIndexAndName) {
    test::VirtualPlatform vp;
    test::ConsoleCapture console;
    auto q = DatabaseQueue::databaseQueueWithPath(vp.scheduler(), vp.documents.file("t.sqlite"));
    ASSERT_TRUE(q);
    Date when = Date::fromSecondsSince1970(1772355600.123456);
    q->inDatabase([&](Database& db) {
        ASSERT_TRUE(db.executeStatements(
            "create table t (i integer, d real, s text, b blob, n integer, at text);"
            "create table u (x integer);"));
        std::optional<int> none;
        ASSERT_TRUE(db.executeUpdate("insert into t values (?, ?, ?, ?, ?, ?)",
                                     {42, 1.5, "héllo", Bytes{0, 1, 2}, none, when}));
        ASSERT_TRUE(
            db.executeUpdate("insert into t values (?, ?, ?, ?, ?, ?)",
                             {Number(7.0), Json(3), Json("j"), nullptr, Json(), Json(true)}));
        auto rs = db.executeQuery("select * from t order by rowid");
        ASSERT_TRUE(rs && rs->next());
        EXPECT_EQ(rs->intForColumn("I"), 42) << "names compare without regard to case";
        EXPECT_EQ(rs->doubleForColumnIndex(1), 1.5);
        EXPECT_EQ(rs->stringForColumn("s"), "héllo");
        EXPECT_EQ(rs->dataForColumn("b"), (Bytes{0, 1, 2}));
        EXPECT_TRUE(rs->columnIsNull("n"));
        EXPECT_FALSE(rs->stringForColumn("n"));
        EXPECT_EQ(rs->objectForColumn("n"), Json());
        // A date bound into a text column is kept as text and reads back as the same instant.
        EXPECT_EQ(rs->objectForColumn("at").type(), Json::value_t::string);
        EXPECT_NEAR(rs->dateForColumn("at")->timeIntervalSince1970(), when.timeIntervalSince1970(),
                    1e-5);
        EXPECT_EQ(rs->objectForColumn("missing"), Json());
        ASSERT_TRUE(rs->next());
        EXPECT_EQ(rs->objectForColumn("i").type(), Json::value_t::number_integer)
            << "integer affinity keeps 7.0 as 7";
        EXPECT_EQ(rs->objectForColumn("at"), Json("1")) << "text affinity keeps a number as text";
        EXPECT_FALSE(rs->next());
        EXPECT_EQ(rs->intForColumnIndex(0), 0) << "a finished result set reads as empty";
        EXPECT_EQ(rs->columnNameForIndex(0), "");

        testing::internal::CaptureStdout();
        dumpQueries(db, {"select i, n as none from t order by rowid", "select nonsense"}, "\n");
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "select i, n as none from t order by rowid\n| i | none | \n"
                  "| 42 | (null) |  |\n| 7 | (null) |  |\nselect nonsense\n");

        // The same cached query nested inside itself still works.
        auto outer = db.executeQuery("select i from t order by rowid");
        int rows = 0;
        while (outer && outer->next()) {
            auto inner = db.executeQuery("select i from t order by rowid");
            while (inner && inner->next()) ++rows;
        }
        EXPECT_EQ(rows, 4);
        EXPECT_FALSE(db.executeUpdate("insert into u values (?)", {1, 2}));
        EXPECT_TRUE(console.contains("DB Error: 2 arguments for 1 parameters"));
        EXPECT_FALSE(db.executeQuery("select nonsense from nowhere"));
    });
    std::string mode;
    q->inDatabase([&](Database& db) {
        auto rs = db.executeQuery("PRAGMA journal_mode");
        if (rs && rs->next()) mode = *rs->stringForColumnIndex(0);
    });
    EXPECT_EQ(mode, "wal");
}

TEST(Database, TwoQueuesOnOneFileLoseNoRows) {
    test::VirtualPlatform vp;
    std::string path = vp.documents.file("shared.sqlite");
    auto a = DatabaseQueue::databaseQueueWithPath(vp.scheduler(), path);
    auto b = DatabaseQueue::databaseQueueWithPath(vp.scheduler(), path);
    a->inDatabase(
        [](Database& db) { db.executeStatements("create table t (who text, n integer);"); });
    auto writer = [](std::shared_ptr<DatabaseQueue> q, const char* who) {
        for (int i = 0; i < 300; ++i) {
            q->inTransaction([&](Database& db, bool&) {
                db.executeUpdate("insert into t values (?, ?)", {who, i});
            });
        }
    };
    std::thread ta(writer, a, "a"), tb(writer, b, "b");
    ta.join();
    tb.join();
    int count = 0;
    b->inDatabase([&](Database& db) {
        auto rs = db.executeQuery("select count(*) from t");
        if (rs && rs->next()) count = rs->intForColumnIndex(0);
    });
    EXPECT_EQ(count, 600);
}

TEST(Database, LockedPastTheBusyTimeoutCorruptOrUnopenableFailsWithClearLogLines) {
    test::VirtualPlatform vp;
    test::ConsoleCapture console;
    std::string path = vp.documents.file("locked.sqlite");
    DatabaseQueue::Options quick;
    quick.busyTimeoutMs = 50;
    auto q = DatabaseQueue::databaseQueueWithPath(vp.scheduler(), path, quick);
    q->inDatabase([](Database& db) { db.executeStatements("create table t (x integer);"); });

    sqlite3* other = nullptr;  // another connection holding the write lock
    ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "begin exclusive", nullptr, nullptr, nullptr), SQLITE_OK);
    bool ran = false;
    q->inTransaction([&](Database&, bool&) { ran = true; });
    EXPECT_TRUE(ran) << "a failed BEGIN does not keep the block from running";
    EXPECT_TRUE(console.contains("DB Error: 5 \"database is locked\""));
    EXPECT_TRUE(console.contains("DB Path: " + path));
    sqlite3_exec(other, "rollback", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    q->inTransaction(
        [&](Database& db, bool&) { ran = db.executeUpdate("insert into t values (1)"); });
    EXPECT_TRUE(ran) << "usable again once the lock is gone";

    // BEGIN refused because a transaction is already open: the statements still take effect.
    q->inDatabase([](Database& db) { db.executeUpdate("begin"); });
    q->inTransaction([](Database& db, bool&) { db.executeUpdate("insert into t values (2)"); });
    int rows = 0;
    q->inDatabase([&](Database& db) {
        auto rs = db.executeQuery("select count(*) from t");
        if (rs && rs->next()) rows = rs->intForColumnIndex(0);
    });
    EXPECT_EQ(rows, 2);

    console.clear();
    test::writeFile(vp.documents.file("corrupt.sqlite"), std::string(4096, 'x'));
    auto c =
        DatabaseQueue::databaseQueueWithPath(vp.scheduler(), vp.documents.file("corrupt.sqlite"));
    ASSERT_TRUE(c) << "SQLite opens lazily";
    c->inDatabase(
        [](Database& db) { setupVersionedSchema(db, "create table if not exists t (x);"); });
    EXPECT_TRUE(console.contains("Woah, SQL failed!"));
    EXPECT_TRUE(console.contains("DB Error: 26 \"file is not a database\""));

    console.clear();
    EXPECT_FALSE(
        DatabaseQueue::databaseQueueWithPath(vp.scheduler(), vp.documents.file("no/dir/x")));
    EXPECT_TRUE(console.contains("Could not create database queue for path " +
                                 vp.documents.file("no/dir/x")));
}

TEST(Database, ReadOnlyFileFailsEveryWriteWithAClearLogLine) {
    test::TempDir dir;
    std::string path = dir.file("ro.sqlite");
    {
        auto db = Database::open(path);
        ASSERT_TRUE(db->executeStatements("create table t (x integer);"));
    }
    chmod(path.c_str(), 0444);
    chmod(dir.path().c_str(), 0555);
    // Root ignores file modes: the writer runs in a child that drops to an unprivileged user.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(3);
        test::VirtualPlatform vp;
        test::ConsoleCapture console;
        auto q = DatabaseQueue::databaseQueueWithPath(vp.scheduler(), path);
        if (!q) _exit(4);
        bool wrote = true;
        q->inTransaction(
            [&](Database& db, bool&) { wrote = db.executeUpdate("insert into t values (1)"); });
        q->inDatabase(
            [&](Database& db) { wrote = wrote && db.executeUpdate("insert into t values (2)"); });
        bool logged =
            !console.withPrefix("DB Error: 8 \"attempt to write a readonly database\"").empty();
        _exit(!wrote && logged ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    chmod(dir.path().c_str(), 0755);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
