// The kit request against a real HTTP server on 127.0.0.1.
#include "proximity/QZWAPIRequest.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "proximity/QZWLogger.h"
#include "support/test_server.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Json;
using platform::Url;

namespace {

struct Outcome {
    std::optional<platform::Error> error;
    std::optional<Json> object;
    std::string code() const {
        return error ? error->domain + " " + std::to_string(error->code) : "-";
    }
};

// Fails the test unless the handler ran by the time everything settled.
Outcome fetch(test::VirtualPlatform& vp, const QZWAPIRequest& api, const std::optional<Url>& url) {
    auto out = std::make_shared<std::optional<Outcome>>();
    api.get(url, [out](auto e, auto o) { *out = Outcome{std::move(e), std::move(o)}; });
    vp.scheduler().settle();
    EXPECT_TRUE(*out) << "no answer";
    return out->value_or(Outcome{});
}

const std::string kKit = R"({"kit":{"id":17,"name":"Store","ibeacons":[]}})";

std::string refused(const std::string& path) {
    return "http://127.0.0.1:" + std::to_string(test::refusedPort()) + path;
}

}  // namespace

TEST(QZWAPIRequest, GetsGoTwiceWithTheThreeHeadersAndAnyAnswerIsCachedAndFallenBackOn) {
    test::LogLevelGuard level(QZWLogLevelInfo);
    test::ConsoleCapture console;
    test::VirtualPlatform vp;
    test::TestServer server;
    server.on("GET", "/api/kits/17", test::Reply{200, kKit});
    QZWAPIRequest api(vp.platform, "secret");
    Outcome o = fetch(vp, api, Url::parse(server.url("/api/kits/17?v=2")));
    EXPECT_FALSE(o.error);
    EXPECT_EQ(o.object, Json::parse(kKit));
    auto got = server.requests();
    ASSERT_EQ(got.size(), 2u);
    for (const auto& r : got) {
        EXPECT_EQ(r.method, "GET");
        EXPECT_EQ(r.target, "/api/kits/17?v=2");
        EXPECT_EQ(r.header("AUTHORIZATION"), "Token token=\"secret\"");
        EXPECT_EQ(r.header("X-ZW-AppID"), test::kTestVendorId);
        EXPECT_EQ(r.header("X-ZW-FrameworkVersion"), "1.0.3");
        EXPECT_FALSE(r.hasHeader("Content-Type"));
    }
    EXPECT_EQ(got[0].headers, got[1].headers) << "the two requests are identical";
    std::string cache = vp.documents.file("zonewise-api-kits-17.data");
    EXPECT_EQ(test::readFile(cache), kKit) << "the cache holds the body bytes unchanged";

    // An error page: cached, and no error, since the status code is never examined.
    server.on("GET", "/kit", test::Reply{500, "<html>Internal Server Error</html>", "text/html"});
    o = fetch(vp, api, Url::parse(server.url("/kit")));
    EXPECT_FALSE(o.error);
    EXPECT_FALSE(o.object);
    EXPECT_EQ(test::readFile(vp.documents.file("zonewise-kit.data")),
              "<html>Internal Server Error</html>");
    EXPECT_EQ(console.withPrefix("Zonewise[Error] API JSON Error:").size(), 1u);
    // A hostile answer nested 100,000 deep is refused before parsing, the same way.
    server.on("GET", "/deep",
              test::Reply{200, std::string(100000, '[') + std::string(100000, ']')});
    o = fetch(vp, api, Url::parse(server.url("/deep")));
    EXPECT_FALSE(o.error);
    EXPECT_FALSE(o.object);
    EXPECT_TRUE(
        console.contains("Zonewise[Error] API JSON Error:JSON nested deeper than 512 levels"));

    // An empty body is "No Data"; with nothing cached for its path, there is no object.
    server.on("GET", "/empty/api/kits/17", test::Reply{200, ""});
    o = fetch(vp, api, Url::parse(server.url("/empty/api/kits/17")));
    EXPECT_EQ(o.error, (platform::Error{"Zonewise", 204, "No Data"}));
    EXPECT_FALSE(o.object);
    EXPECT_TRUE(
        console.contains("Zonewise[Error] API Request Failed with Error: Error Domain=Zonewise "
                         "Code=204 \"No Data\""));

    // Where a copy is cached: the error and the copy, and the copy stays.
    server.on("GET", "/api/kits/17", test::Reply{200, ""});
    console.clear();
    o = fetch(vp, api, Url::parse(server.url("/api/kits/17")));
    EXPECT_EQ(o.code(), "Zonewise 204");
    EXPECT_EQ(o.object, Json::parse(kKit));
    EXPECT_TRUE(console.contains("Zonewise[Info] API Data Loaded from Cache: " + cache));
    EXPECT_EQ(test::readFile(cache), kKit);

    // Nobody listening: the transport error, and the same cached kit (the host is not part of
    // the cache name).
    o = fetch(vp, api, Url::parse(refused("/api/kits/17?other=query")));
    EXPECT_EQ(o.code(), "curl 7");
    EXPECT_EQ(o.object, Json::parse(kKit));

    // No URL configured: the request fails in the HTTP layer and there is no cache to read.
    o = fetch(vp, api, std::nullopt);
    EXPECT_EQ(o.code().substr(0, 5), "curl ");
    EXPECT_FALSE(o.object);
}

TEST(QZWAPIRequest, CacheNamesFollowPathComponentsAndNeverLeaveTheDocumentsDirectory) {
    test::VirtualPlatform vp;
    QZWAPIRequest api(vp.platform, "t");
    auto name = [&](const std::string& u) { return api.fileNameFrom(*Url::parse(u)); };
    EXPECT_EQ(name("https://a.example.com/x/y"), "zonewise-x-y.data");
    EXPECT_EQ(name("https://b.example.com:8443/x/y/?q=1#f"), "zonewise-x-y.data");
    EXPECT_EQ(name("https://a.example.com"), "zonewise-.data");
    EXPECT_EQ(name("https://a.example.com/../../etc/passwd"), "zonewise-..-..-etc-passwd.data");
    EXPECT_EQ(name("https://a.example.com/.."), "zonewise-...data");
    EXPECT_EQ(name("https://a.example.com/a%2F..%2F..%2Fb"), "zonewise-a%2F..%2F..%2Fb.data");
    EXPECT_EQ(name("https://a.example.com/nul%00byte"), "zonewise-nul%00byte.data");
    std::string longPath = "/" + std::string(400, 'k');
    std::string longName = name("https://a.example.com" + longPath);
    EXPECT_LE(longName.size(), 255u);
    EXPECT_EQ(longName.rfind("zonewise-kkkk", 0), 0u);
    EXPECT_NE(longName, name("https://a.example.com" + longPath + "x")) << "distinct when long";

    // Written for real: every file lands directly in the documents directory.
    std::string parent = std::filesystem::path(vp.documents.path()).parent_path().string();
    auto before = std::filesystem::exists(parent + "/etc");
    for (const std::string& u :
         std::vector<std::string>{"https://a/../../etc/passwd", "https://a/a%2F..%2F..%2Fevil",
                                  "https://a" + longPath, "https://a/%2E%2E"}) {
        auto url = Url::parse(u);
        ASSERT_TRUE(url) << u;
        api.writeToDiskFromURL(platform::toBytes("{}"), *url);
        EXPECT_TRUE(api.readFromDisk(*url)) << u;
    }
    std::size_t files = 0;
    for (const auto& e : std::filesystem::recursive_directory_iterator(vp.documents.path())) {
        EXPECT_EQ(e.path().parent_path(), vp.documents.path()) << e.path();
        ++files;
    }
    EXPECT_EQ(files, 4u);
    EXPECT_EQ(std::filesystem::exists(parent + "/etc"), before);
}

TEST(QZWAPIRequest, FailedCacheWriteIsLoggedAndTheAnswerStillDelivered) {
    test::LogLevelGuard level(QZWLogLevelError);
    test::ConsoleCapture console;
    auto files = std::make_shared<test::FaultyFileSystem>();
    files->failWrites = true;
    test::VirtualPlatform vp(test::kTestVendorId, files);
    test::TestServer server;
    server.on("GET", "/kit", test::Reply{200, kKit});
    Outcome o = fetch(vp, QZWAPIRequest(vp.platform, "t"), Url::parse(server.url("/kit")));
    EXPECT_EQ(o.object, Json::parse(kKit));
    auto lines = console.withPrefix("Zonewise[Error] API Data Write to Cache Failed with Error: ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("Code=28"), std::string::npos);
}

TEST(QZWAPIRequest, SynchronousPostSendsJsonHeadersAndReportsOnlyTransportFailures) {
    test::VirtualPlatform vp("");  // no vendor identifier
    test::TestServer server;
    server.on("POST", "/analytics", test::Reply{503, "busy", "text/plain"});
    QZWAPIRequest api(vp.platform, std::nullopt);
    auto res = api.post(Url::parse(server.url("/analytics")), R"({"a":1})");
    EXPECT_FALSE(res.error);
    EXPECT_EQ(platform::toString(res.body), "busy");
    auto got = server.requests();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].method, "POST");
    EXPECT_EQ(got[0].body, R"({"a":1})");
    EXPECT_EQ(got[0].header("Content-Type"), "application/json");
    EXPECT_EQ(got[0].header("Accept"), "application/json");
    EXPECT_EQ(got[0].header("AUTHORIZATION"), "Token token=\"(null)\"");
    EXPECT_FALSE(got[0].hasHeader("X-ZW-AppID")) << "no identifier, no header";
    auto down = api.post(Url::parse(refused("")), "{}");
    EXPECT_EQ(down.error.value_or(platform::Error{}).code, 7);
}
