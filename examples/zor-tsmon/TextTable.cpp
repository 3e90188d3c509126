#include "TextTable.h"

#include <algorithm>
#include <clocale>
#include <cwchar>
#include <utility>

namespace tsmon {

namespace {

constexpr std::size_t GAP = 2;

/// A column that is cut keeps this much.
constexpr std::size_t LEAST_WIDTH = 6;

constexpr const char* ELLIPSIS = "\u2026";

/// Made once and never freed: it takes far longer to make than a text takes to be measured. Null on
/// a system without it.
locale_t Utf8Locale()
{
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return locale;
}

/// Makes the calling thread see texts as UTF-8 for as long as it lives. wcwidth() has no other way
/// to be told, and the process's own locale is not ours to change. On a system without the locale
/// nothing changes, and columns of other texts than ASCII come out too wide.
class Utf8Scope
{
 public:
    Utf8Scope() : m_previous(uselocale(Utf8Locale())) {}
    ~Utf8Scope() { uselocale(m_previous); }

    Utf8Scope(const Utf8Scope&) = delete;
    Utf8Scope& operator=(const Utf8Scope&) = delete;

 private:
    locale_t m_previous;
};

/// The first character of a UTF-8 text, which must not be empty: how many bytes and how many
/// columns it has. A byte that is none counts as a character of one column.
struct Character
{
    std::size_t bytes = 1;
    std::size_t columns = 1;

    explicit Character(std::string_view utf8)
    {
        std::mbstate_t state = {};
        wchar_t character = 0;
        const std::size_t size = std::mbrtowc(&character, utf8.data(), utf8.size(), &state);
        if (size != 0 && size <= utf8.size()) {
            bytes = size;
            columns = static_cast<std::size_t>(std::max(0, wcwidth(character)));
        }
    }
};

std::string Padding(std::size_t width, std::string_view text)
{
    return std::string(width - DisplayWidth(text), ' ');
}

void PrintLine(std::ostream& out, std::string line, std::size_t room)
{
    line.erase(line.find_last_not_of(' ') + 1);
    out << Clip(line, room) << '\n';
}

} // namespace

std::size_t DisplayWidth(std::string_view utf8)
{
    const Utf8Scope scope;
    std::size_t width = 0;
    while (!utf8.empty()) {
        const Character character(utf8);
        width += character.columns;
        utf8.remove_prefix(character.bytes);
    }
    return width;
}

std::string Clip(std::string_view utf8, std::size_t width)
{
    if (DisplayWidth(utf8) <= width) {
        return std::string(utf8);
    }
    if (width == 0) {
        return {};
    }
    const Utf8Scope scope;
    std::size_t bytes = 0;
    for (std::size_t room = width - 1;;) {
        const Character character(utf8.substr(bytes)); // there is one: the whole text does not fit
        if (character.columns > room) {
            return std::string(utf8.substr(0, bytes)) + ELLIPSIS;
        }
        room -= character.columns;
        bytes += character.bytes;
    }
}

void TextTable::AddColumn(std::string title, Align align, Cut cut)
{
    m_columns.push_back({std::move(title), align, cut});
}

void TextTable::AddRow(std::vector<std::string> texts)
{
    texts.resize(m_columns.size());
    m_rows.push_back({std::move(texts), std::nullopt});
}

void TextTable::AddText(std::size_t column, std::string text)
{
    m_rows.push_back({{std::move(text)}, column});
}

void TextTable::Print(std::ostream& out, std::size_t room) const
{
    const std::vector<std::size_t> widths = Widths(room);
    std::vector<std::string> titles;
    for (const Column& column : m_columns) {
        titles.push_back(column.title);
    }
    PrintLine(out, Line(titles, widths), room);
    for (const Row& row : m_rows) {
        PrintLine(out, row.begin ? TextLine(row, widths) : Line(row.texts, widths), room);
    }
}

std::vector<std::size_t> TextTable::Widths(std::size_t room) const
{
    std::vector<std::size_t> widths;
    std::size_t total = 0;
    for (std::size_t column = 0; column < m_columns.size(); ++column) {
        widths.push_back(NaturalWidth(column));
        total += widths.back() + (column > 0 ? GAP : 0);
    }
    for (; total > room; --total) {
        std::size_t* widest = nullptr;
        for (std::size_t column = 0; column < m_columns.size(); ++column) {
            const bool canShrink =
                m_columns[column].cut == Cut::ALLOWED && widths[column] > LEAST_WIDTH;
            if (canShrink && (widest == nullptr || widths[column] > *widest)) {
                widest = &widths[column];
            }
        }
        if (widest == nullptr) {
            break;
        }
        --*widest;
    }
    return widths;
}

std::size_t TextTable::NaturalWidth(std::size_t column) const
{
    std::size_t width = DisplayWidth(m_columns[column].title);
    for (const Row& row : m_rows) {
        if (!row.begin) {
            width = std::max(width, DisplayWidth(row.texts[column]));
        }
    }
    return width;
}

std::string TextTable::Line(const std::vector<std::string>& texts,
                            const std::vector<std::size_t>& widths) const
{
    std::string line;
    for (std::size_t column = 0; column < texts.size(); ++column) {
        const std::string text = Clip(texts[column], widths[column]);
        const std::string padding = Padding(widths[column], text);
        const bool left = m_columns[column].align == Align::LEFT;
        line += column > 0 ? std::string(GAP, ' ') : std::string();
        line += left ? text + padding : padding + text;
    }
    return line;
}

std::string TextTable::TextLine(const Row& row, const std::vector<std::size_t>& widths)
{
    std::size_t indent = 0;
    for (std::size_t column = 0; column < *row.begin; ++column) {
        indent += widths[column] + GAP;
    }
    return std::string(indent, ' ') + row.texts[0];
}

} // namespace tsmon
