#include "Page.h"

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "PageParts.h"

namespace zorrecord {

void PrintPage(const nlohmann::json& data, std::ostream& out)
{
    const std::string text = data.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    out << PAGE_HEAD;
    // No text of the recording's may end the element that the data is in.
    std::size_t from = 0;
    for (std::size_t at = text.find('<'); at != std::string::npos; at = text.find('<', from)) {
        out.write(text.data() + from, static_cast<std::streamsize>(at - from)) << "\\u003c";
        from = at + 1;
    }
    out.write(text.data() + from, static_cast<std::streamsize>(text.size() - from)) << PAGE_TAIL;
}

} // namespace zorrecord
