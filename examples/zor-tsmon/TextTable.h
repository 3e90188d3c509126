#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace tsmon {

/// Columns that a UTF-8 text takes on a terminal: none for combining characters, two for wide ones.
/// The process's locale does not matter. Any thread may call.
std::size_t DisplayWidth(std::string_view utf8);

/// As much of the UTF-8 text as fits into @p width columns; what is cut ends in an ellipsis.
std::string Clip(std::string_view utf8, std::size_t width);

/// Rows of text, printed in columns as wide as their widest text, two spaces apart. Where that is
/// wider than there is room, columns that may be cut are made narrower, the widest first.
class TextTable
{
 public:
    enum class Align
    {
        LEFT,
        RIGHT,
    };

    /// Whether a column's texts may be cut to make a table fit.
    enum class Cut
    {
        NEVER,
        ALLOWED,
    };

    /// Adds a column on the right, before any row is added.
    void AddColumn(std::string title, Align align, Cut cut = Cut::NEVER);

    /// Adds a row; texts that are missing at its end are empty.
    void AddRow(std::vector<std::string> texts);

    /// Adds a line whose text begins in column number @p column and ends where it likes.
    void AddText(std::size_t column, std::string text);

    /// Writes the titles and the rows. No line ends in spaces, and none is wider than @p room:
    /// where columns cannot be made narrow enough, lines are cut.
    void Print(std::ostream& out, std::size_t room = UNLIMITED) const;

    static constexpr std::size_t UNLIMITED = ~std::size_t{0};

 private:
    struct Column
    {
        std::string title;
        Align align;
        Cut cut;
    };

    struct Row
    {
        std::vector<std::string> texts;   ///< one a column, or just one
        std::optional<std::size_t> begin; ///< of a text across columns: the first of them
    };

    std::vector<std::size_t> Widths(std::size_t room) const;
    std::size_t NaturalWidth(std::size_t column) const;
    std::string Line(const std::vector<std::string>& texts,
                     const std::vector<std::size_t>& widths) const;
    static std::string TextLine(const Row& row, const std::vector<std::size_t>& widths);

    std::vector<Column> m_columns;
    std::vector<Row> m_rows;
};

} // namespace tsmon
