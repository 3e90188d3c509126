#include "TextTable.h"

#include <algorithm>
#include <clocale>
#include <cwchar>
#include <utility>

namespace tsmon {

namespace {

constexpr std::size_t GAP = 2;

/// Makes the calling thread see texts as UTF-8 for as long as it lives. wcwidth() has no other way
/// to be told, and the process's own locale is not ours to change. On a system without the locale
/// nothing changes, and columns of other texts than ASCII come out too wide.
class Utf8Scope
{
 public:
    Utf8Scope() : m_locale(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr))
    {
        if (m_locale != nullptr) {
            m_previous = uselocale(m_locale);
        }
    }

    ~Utf8Scope()
    {
        if (m_locale != nullptr) {
            uselocale(m_previous);
            freelocale(m_locale);
        }
    }

    Utf8Scope(const Utf8Scope&) = delete;
    Utf8Scope& operator=(const Utf8Scope&) = delete;

 private:
    locale_t m_locale;
    locale_t m_previous = nullptr;
};

std::string Padding(std::size_t width, std::string_view text)
{
    return std::string(width - DisplayWidth(text), ' ');
}

} // namespace

std::size_t DisplayWidth(std::string_view utf8)
{
    const Utf8Scope scope;
    std::size_t width = 0;
    std::mbstate_t state = {};
    while (!utf8.empty()) {
        wchar_t character = 0;
        const std::size_t size = std::mbrtowc(&character, utf8.data(), utf8.size(), &state);
        const bool valid = size != 0 && size <= utf8.size();
        width += valid ? static_cast<std::size_t>(std::max(0, wcwidth(character))) : 1;
        state = valid ? state : std::mbstate_t{};
        utf8.remove_prefix(valid ? size : 1);
    }
    return width;
}

void TextTable::AddColumn(std::string title, Align align)
{
    m_titles.push_back(std::move(title));
    m_alignments.push_back(align);
}

void TextTable::AddRow(std::vector<std::string> texts)
{
    texts.resize(m_titles.size());
    m_rows.push_back(std::move(texts));
}

void TextTable::Print(std::ostream& out) const
{
    const std::vector<std::size_t> widths = Widths();
    PrintRow(out, m_titles, widths);
    for (const std::vector<std::string>& row : m_rows) {
        PrintRow(out, row, widths);
    }
}

std::vector<std::size_t> TextTable::Widths() const
{
    std::vector<std::size_t> widths;
    for (std::size_t column = 0; column < m_titles.size(); ++column) {
        std::size_t width = DisplayWidth(m_titles[column]);
        for (const std::vector<std::string>& row : m_rows) {
            width = std::max(width, DisplayWidth(row[column]));
        }
        widths.push_back(width);
    }
    return widths;
}

void TextTable::PrintRow(std::ostream& out, const std::vector<std::string>& texts,
                         const std::vector<std::size_t>& widths) const
{
    std::string line;
    for (std::size_t column = 0; column < texts.size(); ++column) {
        const std::string padding = Padding(widths[column], texts[column]);
        const bool left = m_alignments[column] == Align::LEFT;
        line += column > 0 ? std::string(GAP, ' ') : std::string();
        line += left ? texts[column] + padding : padding + texts[column];
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
}

} // namespace tsmon
