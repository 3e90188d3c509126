#pragma once

#include <string_view>

namespace zorrecord {

/// The page without its data, which is JSON and goes between the two. Made by EmbedPage.cmake of
/// the files in page/.
extern const std::string_view PAGE_HEAD;
extern const std::string_view PAGE_TAIL;

} // namespace zorrecord
