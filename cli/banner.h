// banner.h - a message as it is drawn over the picture.
//
// Used by tune. Pure functions. A message is cut into lines and pages, each page is shown for as long as
// reading takes. No byte of the text can steer the player that draws it.
#ifndef PCCAST_CLI_BANNER_H
#define PCCAST_CLI_BANNER_H

#include <string>
#include <string_view>
#include <vector>

// The picture that the banner is laid out for. The player scales it to the real one.
constexpr int kBannerWidth = 1280;
constexpr int kBannerHeight = 720;

constexpr size_t kBannerColumns = 48; // of a line
constexpr size_t kBannerLines = 6;    // of a page
constexpr size_t kBannerPages = 4;    // of a message; the rest of a longer one is left out

struct BannerPage {
    std::vector<std::string> lines; // UTF-8 without control characters
    unsigned long ulShown = 0;      // milliseconds
};

// The pages of a text of any bytes. None when there is nothing to read in it.
std::vector<BannerPage> bannerPages(std::string_view sText);

// The page as events of the Advanced SubStation format, one a line: a box at the lower edge, and the lines.
std::string bannerDraw(const BannerPage &page);

#endif
