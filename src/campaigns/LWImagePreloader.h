// Rewrites an HTML body so that its remote images are embedded as data URLs and the body can be
// shown later without a network.
#pragma once

#include <string>
#include <vector>

#include "platform/http.h"

class LWImagePreloader {
  public:
    static constexpr std::size_t kMaxImageBytes = 1048576;  // 1 MiB; larger images keep their URL

    // Every `src` value of an <img> tag, as the expression
    //   <img[^>]+src=["']([^"']+)["'][^>]*>
    // finds them (case-sensitive, leftmost-first, the last src= before the tag's first '>'),
    // that starts with "http" is downloaded (synchronously, one after another) and replaced by
    // "data:image;charset=US-ASCII;base64,…". A failed download or an image over 1 MiB keeps its
    // URL (as does an answer that is not a success: an error page is no image); tags, quotes and
    // everything else stay as they are.
    static std::string htmlWithInlinedImages(quenby::platform::HttpClient& http,
                                             const std::string& html, double timeoutSeconds = 60.0);

    struct Match {
        std::size_t start, length;  // of the src value
    };
    // The values the expression captures, in order.
    static std::vector<Match> findImageSources(const std::string& html);
};
