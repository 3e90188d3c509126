#include "KeyLine.h"

#include <unistd.h>

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <system_error>

namespace zorhost {
namespace {

constexpr size_t SHOWN_MAX = 100;
constexpr char CUT_MARK[] = "...";

} // namespace

bool ParseKeyLine(std::string_view line, TSKeyPress* press)
{
    const char* const end = line.data() + line.size();
    int number = 0;
    const auto [rest, error] = std::from_chars(line.data(), end, number);
    // A NUL would end the handlers' C string early.
    if (error != std::errc() || number < 0 || (rest != end && *rest != ' ') ||
        line.find('\0') != std::string_view::npos) {
        return false;
    }
    press->combination = static_cast<KeyComb>(number);
    press->text.assign(rest == end ? end : rest + 1, end);
    return true;
}

void ComplainOfKeys(const char* fmt, ...)
{
    char text[1024];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    // One call, so that the line stays whole among those of other threads.
    dprintf(STDERR_FILENO, "ZOR_KEYS: %s\n", text);
}

std::string Printable(std::string_view text)
{
    std::string shown(text.substr(0, SHOWN_MAX));
    for (char& character : shown) {
        if (static_cast<unsigned char>(character) < ' ' || character == '\x7f') {
            character = '?';
        }
    }
    return text.size() > SHOWN_MAX ? shown + CUT_MARK : shown;
}

} // namespace zorhost
