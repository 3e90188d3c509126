#include "Terminal.h"

#include <sys/ioctl.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

namespace tsmon {

namespace {

/// @return 0 if the environment does not say
std::size_t WidthOfEnvironment()
{
    const char* text = std::getenv("COLUMNS");
    if (text == nullptr) {
        return 0;
    }
    const char* end = text + std::strlen(text);
    std::size_t width = 0;
    const auto [parsed, error] = std::from_chars(text, end, width);
    return error == std::errc() && parsed == end ? width : 0;
}

} // namespace

std::size_t WidthOf(int file)
{
    winsize size = {};
    if (ioctl(file, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    const std::size_t width = WidthOfEnvironment();
    return width > 0 ? width : DEFAULT_WIDTH;
}

} // namespace tsmon
