// Rows survive a process killed between the POST and the stamping, and are sent again.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>

#include "analytics/analytics_fixture.h"
#include "proximity/QZWConfiguration.h"
#include "support/test_server.h"

extern char** environ;

using namespace quenby;
using namespace quenby::test;
using platform::Json;

TEST(QZWAnalyticsUpload, AProcessKilledDuringThePostLosesNothingAndTheRowsGoAgain) {
    VirtualPlatform vp;
    TestServer server;
    std::atomic<pid_t> child{0};
    server.on("POST", "/analytics", TestServer::Handler([&](const ReceivedRequest&) {
                  // The host dies while its request is in flight, before any answer.
                  while (child.load() == 0) std::this_thread::yield();
                  kill(child.load(), SIGKILL);
                  return Reply{200, "{}"};
              }));
    std::string url = server.url("/analytics");
    const char* args[] = {QUENBY_CRASH_HELPER, vp.documents.path().c_str(), url.c_str(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, QUENBY_CRASH_HELPER, nullptr, nullptr,
                          const_cast<char* const*>(args), environ),
              0);
    child = pid;
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;

    std::string db = vp.documents.file("ZonewiseAnalytics.sqlite");
    auto sessions = queryRows(db, "select * from region_sessions");
    ASSERT_EQ(sessions.size(), 1u) << "every committed row survived";
    EXPECT_TRUE(sessions[0]["uploaded_at"].is_null());
    EXPECT_EQ(queryRows(db, "select * from events where uploaded_at is null").size(), 1u);
    EXPECT_EQ(queryRows(db, "select * from beacon_sessions").size(), 1u);

    // The next host on the same files sends the same rows again, then stamps them.
    server.on("POST", "/analytics", Reply{200, "{}"});
    QZWConfiguration::sharedConfiguration(*vp.platform)
        .configureWithDictionary({{"ZWAnalyticsURL", url}});
    QZWAnalytics analytics(vp.platform);
    analytics.uploadAnalyticsToServer();
    auto posts = server.requestsTo("/analytics");
    ASSERT_EQ(posts.size(), 2u);
    Json first = Json::parse(posts[0].body), again = Json::parse(posts[1].body);
    EXPECT_EQ(first["zonewise_events"], again["zonewise_events"]);
    EXPECT_EQ(first["lurewave_events"], again["lurewave_events"]);
    EXPECT_TRUE(queryRows(db, "select * from region_sessions where uploaded_at is null").empty());
}
