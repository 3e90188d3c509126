#include "InfoBoxScreen.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cwchar>
#include <string_view>

namespace zorhost {
namespace {

constexpr size_t FRAME = 2; ///< rows of a frame around a text; as many columns on each side
constexpr size_t USUAL_COLUMNS = 80;
constexpr size_t USUAL_ROWS = 24;

constexpr char SAVE_CURSOR[] = "\0337";
constexpr char RESTORE_CURSOR[] = "\0338";

/// One line of a text as it appears: bytes are not columns.
struct TSLine
{
    std::string text;
    size_t width = 0;
};

/// The next character of @p text and how many columns it takes. What a terminal would act upon, and
/// what is no character, is shown as '?'.
TSLine TakeCharacter(std::string_view* text, mbstate_t* state)
{
    wchar_t character = 0;
    const size_t size = mbrtowc(&character, text->data(), text->size(), state);
    if (size == 0 || size > text->size()) {
        *state = {};
        text->remove_prefix(1);
        return {"?", 1};
    }
    const int width = wcwidth(character);
    TSLine taken = {"?", 1};
    if (character == L'\t') {
        taken.text = " ";
    } else if (width >= 0) {
        taken = {std::string(text->substr(0, size)), static_cast<size_t>(width)};
    }
    text->remove_prefix(size);
    return taken;
}

std::vector<TSLine> LinesOf(std::string_view text, size_t widthMax)
{
    std::vector<TSLine> lines(1);
    mbstate_t state = {};
    while (!text.empty()) {
        if (text.front() == '\n') {
            lines.emplace_back();
            text.remove_prefix(1);
            continue;
        }
        const TSLine character = TakeCharacter(&text, &state);
        if (lines.back().width + character.width > widthMax) {
            lines.emplace_back();
        }
        lines.back().text += character.text;
        lines.back().width += character.width;
    }
    return lines;
}

/// The rows of a box around the text, all of the same width.
///
/// @param columns,rows  the most that the box may take
std::vector<std::string> BoxAround(std::string_view text, size_t columns, size_t rows,
                                   size_t* width)
{
    std::vector<TSLine> lines = LinesOf(text, std::max(columns, 2 * FRAME + 2) - 2 * FRAME);
    lines.resize(std::min(lines.size(), std::max(rows, FRAME + 1) - FRAME));
    size_t longest = 0;
    for (const TSLine& line : lines) {
        longest = std::max(longest, line.width);
    }
    const std::string edge = "+" + std::string(longest + 2, '-') + "+";
    std::vector<std::string> box = {edge};
    for (const TSLine& line : lines) {
        box.push_back("| " + line.text + std::string(longest - line.width, ' ') + " |");
    }
    box.push_back(edge);
    *width = edge.size();
    return box;
}

/// Where a box of @p size lies on a terminal of @p cells, which stands for a screen of @p points:
/// wholly on it, if it fits. Counted from 1.
unsigned int Place(size_t point, size_t points, size_t cells, size_t size)
{
    const size_t last = cells > size ? cells - size : 0;
    return static_cast<unsigned int>(std::min(point * cells / points, last)) + 1;
}

bool WriteAll(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    return true;
}

} // namespace

TCInfoBoxScreen::TCInfoBoxScreen() : m_fd(open("/dev/tty", O_WRONLY | O_NOCTTY | O_CLOEXEC))
{
    if (m_fd < 0) {
        m_fd = STDERR_FILENO;
    }
    m_isTerminal = isatty(m_fd) == 1;
}

TCInfoBoxScreen::~TCInfoBoxScreen()
{
    Hide();
    if (m_fd != STDERR_FILENO) {
        close(m_fd);
    }
}

bool TCInfoBoxScreen::Show(const TSInfoBoxOptions& options)
{
    return m_isTerminal ? ShowOnTerminal(options) : ShowAsLines(options);
}

bool TCInfoBoxScreen::ShowOnTerminal(const TSInfoBoxOptions& options)
{
    struct winsize size = {};
    ioctl(m_fd, TIOCGWINSZ, &size);
    const size_t columns = size.ws_col > 0 ? size.ws_col : USUAL_COLUMNS;
    const size_t rows = size.ws_row > 0 ? size.ws_row : USUAL_ROWS;
    const std::vector<std::string> box = BoxAround(options.text, columns, rows, &m_width);
    m_rows = box.size();
    m_column = Place(options.x, TSInfoBoxOptions::SCREEN_WIDTH, columns, m_width);
    m_row = Place(options.y, TSInfoBoxOptions::SCREEN_HEIGHT, rows, m_rows);
    return DrawRows(box);
}

bool TCInfoBoxScreen::ShowAsLines(const TSInfoBoxOptions& options) const
{
    size_t width = 0;
    std::string text =
        "infobox at " + std::to_string(options.x) + "," + std::to_string(options.y) + ":\n";
    // A text has as many lines as it likes here.
    for (const std::string& row : BoxAround(options.text, USUAL_COLUMNS, SIZE_MAX, &width)) {
        text += row + "\n";
    }
    return WriteAll(m_fd, text);
}

void TCInfoBoxScreen::Hide()
{
    DrawRows(std::vector<std::string>(m_rows, std::string(m_width, ' ')));
    m_rows = 0;
}

/// In one call, so that what others write on the terminal comes before it or after it.
bool TCInfoBoxScreen::DrawRows(const std::vector<std::string>& rows) const
{
    if (rows.empty()) {
        return true;
    }
    std::string text = SAVE_CURSOR;
    for (size_t i = 0; i < rows.size(); ++i) {
        text += "\033[" + std::to_string(m_row + i) + ";" + std::to_string(m_column) + "H";
        text += rows[i];
    }
    return WriteAll(m_fd, text + RESTORE_CURSOR);
}

} // namespace zorhost
