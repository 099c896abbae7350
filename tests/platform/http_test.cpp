#include "platform/http.h"

#include <gtest/gtest.h>

#include "support/test_server.h"
#include "support/test_support.h"

using namespace quenby;
using namespace quenby::platform;

TEST(HttpClient, SendsMethodHeadersInOrderAndBodyAnyStatusCompletesAndALargerAnswerFails) {
    test::VirtualPlatform vp;
    test::TestServer server;
    server.on("POST", "/in", test::Reply{500, "<html>oops</html>", "text/html"});
    server.on("GET", "/big", test::Reply{200, std::string(100000, 'x'), "text/plain"});
    HttpRequest req;
    req.method = "POST";
    req.url = server.url("/in?x=1");
    req.body = "{\"a\":1}";
    req.setHeader("AUTHORIZATION", "Token token=\"t\"");
    req.setHeader("X-One", "1");
    req.setHeader("x-one", "2");  // replaces, whatever the case
    req.setHeader("X-Gone", "g");
    req.setHeader("X-Gone", std::nullopt);
    HttpResponse res = vp.platform->http->sendSync(req);
    EXPECT_FALSE(res.error);
    EXPECT_EQ(res.statusCode, 500);
    EXPECT_EQ(toString(res.body), "<html>oops</html>");
    auto got = server.requests();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].method, "POST");
    EXPECT_EQ(got[0].target, "/in?x=1");
    EXPECT_EQ(got[0].body, "{\"a\":1}");
    EXPECT_EQ(got[0].header("AUTHORIZATION"), "Token token=\"t\"");
    EXPECT_EQ(got[0].header("X-One"), "2");
    EXPECT_FALSE(got[0].hasHeader("X-Gone"));
    EXPECT_FALSE(got[0].hasHeader("Expect"));

    HttpRequest big;
    big.url = server.url("/big");
    big.maxResponseBytes = 50000;
    res = vp.platform->http->sendSync(big);
    ASSERT_TRUE(res.error);
    EXPECT_EQ(res.error->description, "response larger than 50000 bytes");
    EXPECT_TRUE(res.body.empty()) << "no half-received body";
    big.maxResponseBytes = 100000;
    EXPECT_EQ(vp.platform->http->sendSync(big).body.size(), 100000u);
}

TEST(HttpClient, TransportFailuresAreErrorsWithoutBody) {
    test::VirtualPlatform vp;
    HttpRequest req;
    req.url = "http://127.0.0.1:" + std::to_string(test::refusedPort()) + "/kit";
    HttpResponse sync = vp.platform->http->sendSync(req);
    ASSERT_TRUE(sync.error);
    EXPECT_EQ(sync.error->domain, "curl");
    EXPECT_EQ(sync.error->code, 7);  // could not connect
    EXPECT_TRUE(sync.body.empty());

    std::optional<HttpResponse> async;
    vp.platform->http->send(req, [&](HttpResponse r) { async = std::move(r); });
    vp.scheduler().settle();
    ASSERT_TRUE(async && async->error);
    EXPECT_EQ(async->error->code, 7);

    req.url = "ftp://127.0.0.1/x";
    EXPECT_TRUE(vp.platform->http->sendSync(req).error) << "only http and https are spoken";
}
