#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <ctime>

#include "platform/bundle.h"
#include "platform/crypto.h"
#include "platform/device.h"
#include "platform/files.h"
#include "platform/plist.h"
#include "platform/url.h"
#include "platform/uuid.h"
#include "support/test_support.h"

using namespace quenby;
using namespace quenby::platform;
using nlohmann::json;

TEST(Uuid, AcceptsOnlyTheCanonicalFormInEitherCase) {
    auto u = UUID::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    ASSERT_TRUE(u);
    EXPECT_EQ(u->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(u, UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"));
    for (const char* bad :
         {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}",
          "E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8-C36C-495A-93FC-0C247A3E6E5FF",
          "E621E1F8-C36C-495A-93FC+0C247A3E6E5F", "G621E1F8-C36C-495A-93FC-0C247A3E6E5F",
          "E621E1F8-C36C-495A-93F-C0C247A3E6E5F"}) {
        EXPECT_FALSE(UUID::parse(bad)) << bad;
    }
}

TEST(Url, ParsesAbsoluteUrlsAndSplitsDecodedPathComponents) {
    auto u = Url::parse("https://api.example.com:8443/api/kits/17/?q=1#f");
    ASSERT_TRUE(u);
    EXPECT_EQ(u->host(), "api.example.com");
    EXPECT_EQ(u->query(), "q=1");
    EXPECT_EQ(u->pathComponents(), (std::vector<std::string>{"/", "api", "kits", "17"}));
    EXPECT_EQ(u->lastPathComponent(), "17");
    EXPECT_EQ(Url::parse("http://h/a//b/%2F/..")->pathComponents(),
              (std::vector<std::string>{"/", "a", "b", "/", ".."}));
    EXPECT_EQ(Url::parse("http://h/caf%C3%A9")->lastPathComponent(), "caf\xC3\xA9");
    for (const char* bad : {"", "/relative/path", "kits/17", "http://h/a b", "http://h/%zz",
                            "http://h/%4", "http://h:99999/", "not a url"}) {
        EXPECT_FALSE(Url::parse(bad)) << bad;
    }
}

TEST(Crypto, Sha1AndBase64) {
    auto d = sha1(std::string_view("abc"));
    EXPECT_EQ(hexString(d.data(), d.size()), "a9993e364706816aba3e25717850c26c9cd0d89d");
    for (std::string s : {"", "f", "fo", "foo", "foob", "fooba", "foobar"}) {
        auto enc = base64Encode(toBytes(s));
        auto dec = base64Decode(enc);
        ASSERT_TRUE(dec) << s;
        EXPECT_EQ(toString(*dec), s);
    }
    EXPECT_EQ(base64Encode(toBytes("foobar")), "Zm9vYmFy");
    EXPECT_EQ(base64Encode(toBytes("fo")), "Zm8=");
    EXPECT_FALSE(base64Decode("Zm8"));
    EXPECT_FALSE(base64Decode("Zm=8"));
    EXPECT_FALSE(base64Decode("Zm8*"));
}

TEST(PropertyList, ReadsXmlAndBinaryAndRejectsGarbage) {
    json want = {{"ZWKitURL", "http://example.com/api/kits/17"},
                 {"Count", -5},
                 {"Big", 1099511627776},
                 {"Ratio", 1.5},
                 {"On", true},
                 {"List", {1, "two", {{"three", 3}}}}};
    auto xml = parsePropertyList(toBytes(toXmlPropertyList(want)));
    ASSERT_TRUE(xml);
    EXPECT_EQ(*xml, want);

    // Written by another tool, with a data value too.
    const std::string hex =
        "62706c6973743030d70102030405060708090a0b1112135342696754426c6f6255436f756e74544c697374524f"
        "6e55526174696f585a574b697455524c130000010000000000430001ff13fffffffffffffffba30c0d0e100153"
        "74776fd10f10557468726565100309233ff80000000000005f101e687474703a2f2f6578616d706c652e636f6d"
        "2f6170692f6b6974732f313708171b20262b2e343d464a5357595d606668697200000000000001010000000000"
        "00001400000000000000000000000000000093";
    Bytes bin;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bin.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    auto b = parsePropertyList(bin);
    ASSERT_TRUE(b);
    json blob = (*b)["Blob"];
    b->erase("Blob");
    EXPECT_EQ(*b, want);
    ASSERT_TRUE(blob.is_binary());
    EXPECT_EQ(static_cast<const std::vector<std::uint8_t>&>(blob.get_binary()),
              (std::vector<std::uint8_t>{0, 1, 255}));

    std::string err;
    EXPECT_FALSE(parsePropertyList(toBytes("this is not a plist"), &err));
    EXPECT_FALSE(err.empty());
    EXPECT_FALSE(parsePropertyList({}));
    Bytes truncated(bin.begin(), bin.begin() + static_cast<long>(bin.size() / 2));
    EXPECT_FALSE(parsePropertyList(truncated));
    std::string deep = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int i = 0; i < 600; ++i) deep += "<array>";
    for (int i = 0; i < 600; ++i) deep += "</array>";
    deep += "</plist>";
    EXPECT_FALSE(parsePropertyList(toBytes(deep)));
}

TEST(Files, AtomicAndPlainWritesAndFailuresAreValues) {
    test::TempDir dir;
    LocalFileSystem fs;
    std::string p = dir.file("state.plist");
    EXPECT_FALSE(fs.readFile(p));
    EXPECT_FALSE(fs.writeFile(p, toBytes("one"), true));
    EXPECT_EQ(toString(*fs.readFile(p)), "one");
    EXPECT_FALSE(fs.writeFile(p, toBytes("two!"), false));
    EXPECT_EQ(toString(*fs.readFile(p)), "two!");
    EXPECT_FALSE(fs.writeFile(p, {}, true));
    EXPECT_TRUE(fs.readFile(p)->empty());

    auto err = fs.writeFile(dir.file("missing/x"), toBytes("x"), true);
    ASSERT_TRUE(err);
    EXPECT_EQ(err->domain, "POSIX");
    EXPECT_EQ(err->code, ENOENT);
    EXPECT_FALSE(fs.readFile(dir.path())) << "a directory is not a file";

    // A read-only directory: the atomic write fails and leaves the old contents.
    chmod(dir.path().c_str(), 0555);
    if (geteuid() != 0) {
        EXPECT_TRUE(fs.writeFile(p, toBytes("three"), true));
        EXPECT_TRUE(fs.readFile(p)->empty());
    }
    chmod(dir.path().c_str(), 0755);
    EXPECT_EQ(joinPath("/a/", "/b"), "/a/b");
    EXPECT_EQ(joinPath("/a", "b"), "/a/b");
}

TEST(Bundle, FindsResourcesOnlyInsideItsDirectory) {
    test::TempDir dir;
    test::writeFile(dir.file("Zonewise.plist"), toXmlPropertyList({{"ZWAPIToken", "t"}}));
    test::writeFile(dir.file("Info.plist"),
                    toXmlPropertyList({{"NSLocationAlwaysUsageDescription", "why"}}));
    Bundle b(dir.path());
    EXPECT_EQ(b.pathForResource("Zonewise", "plist"), dir.file("Zonewise.plist"));
    EXPECT_FALSE(b.pathForResource("Lurewave", "plist"));
    EXPECT_FALSE(b.pathForResource("../etc/passwd", ""));
    EXPECT_EQ(b.objectForInfoDictionaryKey("NSLocationAlwaysUsageDescription"), json("why"));
    EXPECT_FALSE(b.objectForInfoDictionaryKey("NSLocationWhenInUseUsageDescription"));
    test::writeFile(dir.file("Info.plist"), "garbage");
    EXPECT_EQ(b.infoDictionary(), json::object());
}

TEST(Device, VendorIdentifierIsStablePerApplicationAndHidesTheMachineId) {
    auto a = LinuxDeviceInfo::derive("0123456789abcdef0123456789abcdef", "app.one");
    EXPECT_EQ(a, LinuxDeviceInfo::derive("0123456789abcdef0123456789abcdef", "app.one"));
    EXPECT_NE(a, LinuxDeviceInfo::derive("0123456789abcdef0123456789abcdef", "app.two"));
    EXPECT_EQ(a.uuidString()[14], '5');
    EXPECT_EQ(a.uuidString().find("01234567"), std::string::npos);
    test::TempDir dir;
    LinuxDeviceInfo d("app.one", dir.file("vendor-id"));
    ASSERT_TRUE(d.identifierForVendor());
    EXPECT_EQ(d.identifierForVendor(),
              LinuxDeviceInfo("app.one", dir.file("vendor-id")).identifierForVendor());
}

TEST(Dates, UtcTextMatchesTheCLibraryAcrossCenturiesAndDropsTheFraction) {
    for (double t : {0.0, 951782400.0, 4107542399.0, -2208988800.0, 253402300799.0, 1416056709.7,
                     -0.5, -86400.25, 68169600.0}) {
        std::time_t whole = static_cast<std::time_t>(std::floor(t));
        std::tm tm{};
        gmtime_r(&whole, &tm);
        char want[40];
        std::strftime(want, sizeof want, "%Y-%m-%dT%H:%M:%SZ", &tm);
        EXPECT_EQ(formatUTC(Date::fromSecondsSince1970(t)), want) << t;
    }
    EXPECT_EQ(formatUTC(Date::fromSecondsSince1970(1416018456.7891), true),
              "2014-11-15T02:27:36.789Z");
    EXPECT_EQ(formatUTC(Date::distantPast()), "0001-01-01T00:00:00Z");
    EXPECT_EQ(formatUTC(Date::distantFuture()), "4001-01-01T00:00:00Z");
}
