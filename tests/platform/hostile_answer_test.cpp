// One answer from a broken or hostile server must not take the device's memory: 120 MB of valid
// JSON (an array of zeros) as the kit, the campaign feed and the status answer at once. This test
// has a binary of its own, as the peak resident size it checks is the whole process's.
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "campaigns/LWAPIRequest.h"
#include "proximity/QZWAPIRequest.h"
#include "status/QTLAPIRequest.h"
#include "support/hostile_server.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Error;
using platform::Json;
using platform::Url;

TEST(HostileAnswer, A120MBAnswerFailsItsRequestKeepsTheCacheAndTheProcessUnder256MB) {
    test::ConsoleCapture console;
    test::VirtualPlatform vp;
    test::HostileServer server;
    const std::string kit = R"({"kit":{"id":17,"name":"Store","ibeacons":[]}})";
    const std::string status = R"({"ok":true})";
    auto kitUrl = Url::parse(server.url("/kit"));
    auto statusUrl = Url::parse(server.url("/status"));
    QZWAPIRequest kitApi(vp.platform, "t");
    QTLAPIRequest statusApi(vp.platform, "t");
    LWAPIRequest feedApi(vp.platform, "t");
    kitApi.writeToDiskFromURL(platform::toBytes(kit), *kitUrl);  // from the last good sync
    statusApi.writeToDisk(platform::toBytes(status), *statusUrl);

    struct Outcome {
        std::optional<Error> error;
        std::optional<Json> object;
    };
    auto kitOut = std::make_shared<Outcome>(), statusOut = std::make_shared<Outcome>(),
         feedOut = std::make_shared<Outcome>();
    auto into = [](std::shared_ptr<Outcome> out) {
        return [out](std::optional<Error> e, std::optional<Json> o) {
            out->error = std::move(e);
            out->object = std::move(o);
        };
    };
    kitApi.get(kitUrl, into(kitOut));
    statusApi.get(statusUrl, into(statusOut));
    feedApi.getHandler(server.url("/feed"), into(feedOut));
    vp.scheduler().settle();

    const std::string refused =
        "response larger than " + std::to_string(platform::kMaxKitAnswerBytes) + " bytes";
    ASSERT_TRUE(kitOut->error);
    EXPECT_EQ(kitOut->error->description, refused);
    EXPECT_EQ(kitOut->object, Json::parse(kit)) << "the cached kit stands in";
    EXPECT_EQ(test::readFile(vp.documents.file("zonewise-kit.data")), kit) << "and kept";
    EXPECT_TRUE(
        console.contains("HTTP answer refused, " + refused + ": GET " + server.url("/kit")));
    ASSERT_TRUE(feedOut->error);
    EXPECT_EQ(feedOut->error->description, refused);
    EXPECT_EQ(feedOut->error->code, 63) << "refused on its announced size, before its body";
    EXPECT_FALSE(feedOut->object);
    ASSERT_TRUE(statusOut->error);
    EXPECT_EQ(statusOut->object, Json::parse(status));

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // Sanitizers keep freed memory in quarantine and shadow the rest: only a plain build's
    // figure means anything.
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    EXPECT_LT(usage.ru_maxrss, 256 * 1024) << "peak resident KiB";
#endif

    // A cache file over the cap (left by an older version, or by hand) is not read back.
    std::string cacheFile = vp.documents.file("zonewise-kit.data");
    test::writeFile(cacheFile, std::string(platform::kMaxKitAnswerBytes + 1, ' '));
    EXPECT_FALSE(kitApi.readFromDisk(*kitUrl));
    EXPECT_TRUE(console.contains("Cache file ignored, larger than " +
                                 std::to_string(platform::kMaxKitAnswerBytes) +
                                 " bytes: " + cacheFile));
}
