// Absolute URLs: parsing, the parts the library reads, and NSURL-style path components.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quenby::platform {

class Url {
  public:
    // Parses an absolute URL ("scheme://host[:port]/path?query#fragment"). Answers nothing for
    // text that is not one (relative references, blanks, bad ports, bad percent-escapes).
    static std::optional<Url> parse(std::string_view text);
    // Like parse, but also takes a relative reference ("status.example.com/events", "/events",
    // "events?x=1"), which has no scheme and no host and is kept whole as its path and query.
    // Such a URL names nothing that a request can reach without a base.
    static std::optional<Url> parseReference(std::string_view text);

    bool isRelative() const { return scheme_.empty(); }

    const std::string& absoluteString() const { return absolute_; }
    const std::string& scheme() const { return scheme_; }
    const std::string& host() const { return host_; }
    // The path as written in the URL, still percent-encoded ("" when the URL has none).
    const std::string& path() const { return path_; }
    const std::string& query() const { return query_; }

    // The decoded components of the path: "/" first for an absolute path, then every non-empty
    // segment, percent-decoded. "/api/kits/17/" gives {"/", "api", "kits", "17"}.
    std::vector<std::string> pathComponents() const;
    // The last of pathComponents(), or "" when there are none.
    std::string lastPathComponent() const;

    bool operator==(const Url& o) const { return absolute_ == o.absolute_; }

  private:
    std::string absolute_, scheme_, host_, path_, query_;
};

// The name of a URL's cache file: `prefix`, the decoded path components without the root "/"
// joined with "-", then `suffix` ("zonewise-" + "/api/kits/17" + ".data" gives
// "zonewise-api-kits-17.data"). Host, port, query and fragment play no part. The name never
// leaves its directory: a "/" or NUL decoded from the path is written back as "%2F" or "%00", and
// a name longer than a file system allows keeps its start and ends in a digest of the whole.
std::string cacheFileName(std::string_view prefix, const Url& url, std::string_view suffix);

}  // namespace quenby::platform
