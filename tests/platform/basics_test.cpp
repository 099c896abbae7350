#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <ctime>
#include <filesystem>

#include "platform/archive.h"
#include "platform/bundle.h"
#include "platform/crypto.h"
#include "platform/device.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/plist.h"
#include "platform/url.h"
#include "platform/uuid.h"
#include "support/test_support.h"

using namespace quenby;
using namespace quenby::platform;
using nlohmann::json;

TEST(Uuid, AcceptsOnlyTheCanonicalFormInEitherCase) {
    auto u = UUID::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e50");
    ASSERT_TRUE(u);
    EXPECT_EQ(u->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E50");
    EXPECT_EQ(u, UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E50"));
    // FNV-1a: every byte reaches the low bits that hash buckets use.
    EXPECT_EQ(u->hash(), 0x0736b12ea65a5346u);
    for (const char* bad :
         {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}",
          "E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8-C36C-495A-93FC-0C247A3E6E5FF",
          "E621E1F8-C36C-495A-93FC+0C247A3E6E5F", "G621E1F8-C36C-495A-93FC-0C247A3E6E5F",
          "E621E1F8-C36C-495A-93F-C0C247A3E6E5F"})
        EXPECT_FALSE(UUID::parse(bad)) << bad;
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
    EXPECT_EQ(Url::parse("http://h/caf%C3%A9%40")->lastPathComponent(), "caf\xC3\xA9@");
    // A decoded "/" or NUL must not let a cache file name leave its directory.
    EXPECT_EQ(cacheFileName("zonewise-", *Url::parse("http://h:8/api/a%2Fb%00?q#f"), ".data"),
              "zonewise-api-a%2Fb%00.data");
    for (const char* bad : {"", "/relative/path", "kits/17", "http://h/a b", "http://h/%zz",
                            "http://h/%4z", "http://h/%4", "http://h:99999/", "not a url"})
        EXPECT_FALSE(Url::parse(bad)) << bad;
    std::string longest = "http://h/" + std::string(65536 - 9, 'a');
    EXPECT_TRUE(Url::parse(longest));
    EXPECT_FALSE(Url::parse(longest + "a"));

    auto ref = Url::parseReference("/events?x=1#f");
    ASSERT_TRUE(ref && ref->isRelative());
    EXPECT_EQ(ref->path(), "/events");
    EXPECT_EQ(ref->query(), "x=1");
    EXPECT_EQ(Url::parseReference("events/at:9")->path(), "events/at:9");
    EXPECT_FALSE(Url::parseReference("status.example.com:8080/events"))
        << "a colon first is a scheme";
}

TEST(Crypto, Sha1AndBase64) {
    auto d = sha1(std::string_view("abc"));
    EXPECT_EQ(hexString(d.data(), d.size()), "a9993e364706816aba3e25717850c26c9cd0d89d");
    std::vector<std::string> coded = {"",         "Zg==",     "Zm8=",    "Zm9v",
                                      "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (std::size_t n = 0; n < coded.size(); ++n) {
        EXPECT_EQ(base64Encode(toBytes(std::string("foobar", n))), coded[n]);
        EXPECT_EQ(base64Decode(coded[n]), toBytes(std::string("foobar", n))) << coded[n];
    }
    for (const char* bad : {"Zm8", "Zm=8", "Zm8*"}) EXPECT_FALSE(base64Decode(bad)) << bad;
    Bytes every(256);  // encodes to the whole alphabet
    for (int i = 0; i < 256; ++i) every[i] = static_cast<std::uint8_t>(i);
    EXPECT_EQ(base64Decode(base64Encode(every)), every);
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
    for (std::size_t i = 0; i < hex.size(); i += 2)
        bin.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
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

    // Wider offsets and references, long and UTF-16 strings, strings the writer shares.
    json big = {{"Long", std::string(70000, 'x')}, {"Caf\u00e9", "\u2615"}, {"Same", {"s", "s"}}};
    for (int i = 0; i < 600; ++i) big["List"].push_back("value " + std::to_string(i));
    EXPECT_EQ(parsePropertyList(toBinaryPropertyList(big)), big);
    EXPECT_EQ(parsePropertyList(toBytes(toXmlPropertyList(big))), big);
    EXPECT_EQ(parsePropertyList(toBinaryPropertyList(want)), want);
    // Markup that is no element does not nest, wherever it stands.
    std::string arrays, empties;
    json tail = json::array();
    for (int i = 0; i < 600; ++i) {
        arrays += "<array>";
        empties += i % 2 ? "<dict/>" : "<array />";
        tail.push_back(i % 2 ? json::object() : json::array());
    }
    std::string tricky =
        "<?xml version=\"1.0\"?><!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\"><plist version=\">" +
        arrays + "\"><array><!--" + arrays + "--><?pi " + arrays + "?><string><![CDATA[" + arrays +
        "]]></string>" + empties + "</array></plist>";
    tail.insert(tail.begin(), arrays);
    EXPECT_EQ(parsePropertyList(toBytes(tricky)), tail);
}

TEST(NestingLimit, EveryReaderTakes512LevelsAroundAValueAndRefuses513) {
    for (int n : {512, 513}) {
        std::string plist = "<?xml version=\"1.0\"?><plist version=\"1.0\">", close;
        for (int i = 0; i < n; ++i) plist += "<array>", close += "</array>";
        plist += "<integer>1</integer>" + close + "</plist>";
        Bytes cbor(n, 0x81);  // arrays of one element
        cbor.push_back(0x01);
        std::string e1, e2, e3;
        auto json = parseJson(std::string(n, '[') + "1" + std::string(n, ']'), &e1);
        auto archive = unarchiveJson(cbor, &e2);
        auto list = parsePropertyList(toBytes(plist), &e3);
        EXPECT_EQ(std::vector<bool>({!!json, !!archive, !!list}), std::vector<bool>(3, n == 512));
        EXPECT_EQ(std::vector<std::string>({e1, e2, e3}),
                  n == 512 ? std::vector<std::string>(3)
                           : std::vector<std::string>({"JSON nested deeper than 512 levels",
                                                       "archive nested too deeply",
                                                       "property list nested too deeply"}));
    }
}

TEST(JsonBudget, DenseDocumentsAreRefusedBeforeParsingAndStringsCountForNothing) {
    // Each just over 96 MiB once parsed: 16 bytes a value, 64 more a container, 80 more a member.
    auto repeat = [](std::string open, const std::string& item, std::size_t n, char close) {
        open.reserve(open.size() + n * (item.size() + 1) + 1);
        for (std::size_t i = 0; i < n; ++i) (i ? open += ',' : open) += item;
        return open + close;
    };
    for (const auto& text : {repeat("[", "0", 6291452, ']'), repeat("[", "[]", 1048576, ']'),
                             repeat("{", "\"a\":0", 1048576, '}')}) {
        std::string error;
        EXPECT_FALSE(parseJson(text, &error));
        EXPECT_EQ(error.rfind("JSON document too large: ", 0), 0u) << error;
    }
    // Brackets and separators inside a string, after an escaped quote, are neither nesting nor
    // values.
    EXPECT_TRUE(parseJson("[\"\\\"" + std::string(600, '[') + std::string(7000000, ',') + "\"]"));
}

TEST(Json, LenientReadersSkipOnlyBlanksAndReadEveryDigit) {
    struct Row {
        Json value;
        int i;
        double d;
        bool b;
    };
    for (const Row& r : std::vector<Row>{{"10", 10, 10, true},
                                         {" \t+2.5e1x", 2, 25, true},
                                         {"_1", 0, 0, false},
                                         {"-00", 0, 0, false},
                                         {true, 1, 1, true},
                                         {nullptr, 0, 0, false}}) {
        EXPECT_EQ(jsonIntValue(&r.value), r.i) << r.value;
        EXPECT_EQ(jsonDoubleValue(&r.value), r.d) << r.value;
        EXPECT_EQ(jsonBoolValue(&r.value), r.b) << r.value;
    }
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
    // The longest legal name is written atomically too, and no temporary file stays behind.
    std::string longest = dir.file(std::string(kMaxFileName, 'n'));
    EXPECT_FALSE(fs.writeFile(longest, toBytes("long"), true));
    EXPECT_EQ(fs.readFile(longest), toBytes("long"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 2);
    std::string fits(kMaxFileName - 4, 'n');
    EXPECT_EQ(boundedFileName("p-", fits, ".x"), "p-" + fits + ".x");
    std::string cut = boundedFileName("p-", fits + "n", ".x");
    EXPECT_EQ(cut.size(), kMaxFileName);
    EXPECT_EQ(cut, "p-" + fits.substr(0, kMaxFileName - 45) + "-" +
                       hexString(sha1(fits + "n").data(), 20) + ".x");

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

TEST(Dates, UtcTextMatchesTheCLibraryAcrossCenturiesAndParsesOnlyRealInstants) {
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

    const double no = -1;  // refused
    for (auto [text, want] : std::vector<std::pair<const char*, double>>{
             {"2026-03-01T14:30:00.5+05:30", 1772355600.5},
             {"2026-03-01T01:00:00.123456789-0800", 1772355600.123456789},
             {"2026-03-01T09:00:00.1234567890Z", no},
             {"2026-03-01T09:00:00Z", no},
             {"2026-03-01T09:00:00.0+24:00", no},
             {"2024-02-29T23:59:59.0Z", 1709251199},
             {"2000-02-29T00:00:00.0Z", 951782400},
             {"1900-02-29T00:00:00.0Z", no},
             {"2023-02-29T00:00:00.0Z", no},
             {"2026-01-31T09:00:00.0Z", 1769850000},
             {"2026-08-31T12:00:00.0Z", 1788177600},
             {"2026-10-31T00:00:00.0Z", 1793404800},
             {"2026-04-31T00:00:00.0Z", no},
             {"2026-00-01T00:00:00.0Z", no},
             {"2026-13-01T00:00:00.0Z", no},
             {"2026-03-01T24:00:00.0Z", no}}) {
        auto d = parseTimestamp(text);
        EXPECT_NEAR(d ? d->timeIntervalSince1970() : no, want, 1e-6) << text;
    }
}
