#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace tsmon {

/// Columns that a UTF-8 text takes on a terminal: none for combining characters, two for wide ones.
/// The process's locale does not matter. Any thread may call.
std::size_t DisplayWidth(std::string_view utf8);

/// Rows of text, printed in columns as wide as their widest text, two spaces apart.
class TextTable
{
 public:
    enum class Align
    {
        LEFT,
        RIGHT,
    };

    /// Adds a column on the right, before any row is added.
    void AddColumn(std::string title, Align align);

    /// Adds a row; texts that are missing at its end are empty.
    void AddRow(std::vector<std::string> texts);

    /// Writes the titles and the rows. No line ends in spaces.
    void Print(std::ostream& out) const;

 private:
    std::vector<std::size_t> Widths() const;
    void PrintRow(std::ostream& out, const std::vector<std::string>& texts,
                  const std::vector<std::size_t>& widths) const;

    std::vector<Align> m_alignments;
    std::vector<std::string> m_titles;
    std::vector<std::vector<std::string>> m_rows;
};

} // namespace tsmon
