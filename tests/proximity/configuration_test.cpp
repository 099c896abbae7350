#include "proximity/QZWConfiguration.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/plist.h"
#include "proximity/QZWLogger.h"
#include "support/test_support.h"

using namespace quenby;
using platform::Bundle;
using platform::Url;

TEST(QZWConfiguration, ReadsTheHostBundleFirstThenTheLibrarysOwn) {
    test::TempDir host, lib;
    test::writeFile(lib.file("Zonewise.plist"),
                    platform::toXmlPropertyList({{"ZWAPIToken", "library"}}));
    EXPECT_EQ(QZWConfiguration(Bundle(host.path()), Bundle(lib.path())).apiToken(), "library");

    test::writeFile(
        host.file("Zonewise.plist"),
        platform::toXmlPropertyList({{"ZWKitURL", "https://api.example.com/api/kits/17"},
                                     {"ZWAPIToken", "host"},
                                     {"ZWAnalyticsURL", "https://a.example.com/up"},
                                     {"ZWMapName", "Ground floor"}}));
    QZWConfiguration c(Bundle(host.path()), Bundle(lib.path()));
    EXPECT_EQ(c.plistPath(), host.file("Zonewise.plist"));
    EXPECT_EQ(c.url()->absoluteString(), "https://api.example.com/api/kits/17");
    EXPECT_EQ(c.apiToken(), "host");
    EXPECT_EQ(c.analyticsURL()->host(), "a.example.com");
    EXPECT_EQ(c.mapName(), "Ground floor");

    // A dictionary replaces the file's settings; it does not merge with them.
    c.configureWithDictionary({{"ZWAPIToken", "given"}});
    EXPECT_EQ(c.apiToken(), "given");
    EXPECT_FALSE(c.url());
    EXPECT_FALSE(c.analyticsURL());
    c.configureFromPlistFile();
    EXPECT_EQ(c.apiToken(), "host");

    c.setUrl(Url::parse("http://127.0.0.1:8080/kit"));
    c.setMapName(std::nullopt);
    c.setApiToken("t2");
    c.setAnalyticsURL(Url::parse("http://127.0.0.1:8080/analytics"));
    EXPECT_EQ(c.config(), platform::Json({{"ZWAnalyticsURL", "http://127.0.0.1:8080/analytics"},
                                          {"ZWKitURL", "http://127.0.0.1:8080/kit"},
                                          {"ZWAPIToken", "t2"}}));
}

TEST(QZWConfiguration, MissingOrBrokenFileLeavesEverythingAbsent) {
    test::LogLevelGuard level(QZWLogLevelError);
    test::ConsoleCapture console;
    test::TempDir host;
    QZWConfiguration c(Bundle(host.path()), std::nullopt);
    EXPECT_TRUE(console.contains("Zonewise[Critical] ERROR: Missing Zonewise.plist file."));
    EXPECT_TRUE(c.config().is_null());
    EXPECT_FALSE(c.apiToken());
    EXPECT_FALSE(c.url());

    console.clear();
    test::writeFile(host.file("Zonewise.plist"), "<plist><dict><key>ZWAPIToken</key>");
    c.loadConfigFromPlist();
    EXPECT_TRUE(console.lines().empty()) << "present but unreadable is not reported as missing";
    EXPECT_TRUE(c.config().is_null());

    test::writeFile(host.file("Zonewise.plist"),
                    platform::toXmlPropertyList({{"ZWKitURL", "not a url"}, {"ZWAPIToken", 12}}));
    c.loadConfigFromPlist();
    EXPECT_FALSE(c.url()) << "an unparsable URL reads as absent";
    EXPECT_FALSE(c.apiToken()) << "a token of the wrong type reads as absent";
}

namespace {

// Runs in a fresh process: prints what the shared instance was made from and exits.
[[noreturn]] void reportSharedConfiguration() {
    std::string seen;
    {
        test::VirtualPlatform a, b;
        a.writeBundlePlist("Zonewise.plist", {{"ZWAPIToken", "first"}});
        b.writeBundlePlist("Zonewise.plist", {{"ZWAPIToken", "second"}});
        auto& shared = QZWConfiguration::sharedConfiguration(*a.platform);
        seen += &shared == &QZWConfiguration::sharedConfiguration(*b.platform) ? "one instance"
                                                                               : "two instances";
        seen += ", made with " + shared.apiToken().value_or("nothing");
        shared.setBundles(b.platform->mainBundle, std::nullopt);
        shared.configureFromPlistFile();
        seen += ", then " +
                QZWConfiguration::sharedConfiguration(*a.platform).apiToken().value_or("nothing");
    }
    std::fprintf(stderr, "[%s]\n", seen.c_str());
    std::exit(0);
}

}  // namespace

// The shared instance lives for the whole process and any earlier test may already have made it,
// so the check runs in a fresh one: "threadsafe" re-executes this binary for this test alone (a
// plain fork would inherit an instance made before it).
TEST(QZWConfigurationDeathTest, SharedInstanceIsMadeOnceFromTheFirstCallersBundles) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(reportSharedConfiguration(), testing::ExitedWithCode(0),
                "\\[one instance, made with first, then second\\]");
}
