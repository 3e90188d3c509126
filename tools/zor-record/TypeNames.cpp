#include "TypeNames.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "Task.h"

namespace zorrecord {

namespace {

/// A whole number as the file has it.
std::optional<std::uint64_t> NumberIn(std::string text)
{
    int base = 10;
    if (text.size() > 2 && text[0] == '0') {
        const char kind = text[1];
        base = kind == 'x' || kind == 'X'   ? 16
               : kind == 'o' || kind == 'O' ? 8
               : kind == 'b' || kind == 'B' ? 2
                                            : 10;
        text.erase(0, base == 10 ? 0 : 2);
    }
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, base);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

} // namespace

TypeNames::TypeNames()
    : m_names{
          {TCTask::EVENT_EXIT, "EVENT_EXIT"},   {TCTask::EVENT_USER, "EVENT_USER"},
          {TCTask::EVENT_PING, "EVENT_PING"},   {TCTask::EVENT_CLEAR_QUEUE, "EVENT_CLEAR_QUEUE"},
          {TCTask::EVENT_PAUSE, "EVENT_PAUSE"}, {TCTask::EVENT_RESUME, "EVENT_RESUME"}}
{}

void TypeNames::ReadFile(const std::string& path)
{
    errno = 0;
    std::ifstream file(path);
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string value;
        std::string name;
        std::string more;
        if (!(words >> value)) {
            continue;
        }
        const std::optional<std::uint64_t> type = NumberIn(value);
        if (!type || !(words >> name) || words >> more) {
            throw std::runtime_error("'" + path + "', line " + std::to_string(number) +
                                     ": not a number and a name, as in '101 EV_ASK'");
        }
        m_names[*type] = name;
    }
    if (!file.eof()) { // it was not opened, or not read to its end
        throw std::runtime_error(std::string(std::strerror(errno)) +
                                 ": the names of event types in '" + path + "'");
    }
}

const std::string& TypeNames::NameOf(std::uint64_t type) const
{
    static const std::string none;
    const auto found = m_names.find(type);
    return found != m_names.end() ? found->second : none;
}

std::string TypeNames::TextOf(std::uint64_t type) const
{
    const std::string& name = NameOf(type);
    return std::to_string(type) + (name.empty() ? "" : " (" + name + ")");
}

std::optional<std::uint64_t> TypeNames::Find(const std::string& text) const
{
    if (const std::optional<std::uint64_t> number = NumberIn(text)) {
        return number;
    }
    for (const auto& [type, name] : m_names) {
        if (name == text) {
            return type;
        }
    }
    return std::nullopt;
}

} // namespace zorrecord
