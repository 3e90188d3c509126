#pragma once

#include <string>
#include <vector>

#include "InfoBoxOptions.h"

namespace zorhost {

/// What an info box is shown on: the controlling terminal, else standard error.
///
/// On a terminal the box lies over what is there, and the cursor stays where it was; when it goes
/// it leaves blanks behind. Elsewhere it is written once, as lines of text.
class TCInfoBoxScreen
{
 public:
    TCInfoBoxScreen();
    ~TCInfoBoxScreen();

    TCInfoBoxScreen(const TCInfoBoxScreen&) = delete;
    TCInfoBoxScreen& operator=(const TCInfoBoxScreen&) = delete;

    /// @return false if nothing can be written
    bool Show(const TSInfoBoxOptions& options);

    /// Takes the box from a terminal.
    void Hide();

 private:
    bool ShowOnTerminal(const TSInfoBoxOptions& options);
    bool ShowAsLines(const TSInfoBoxOptions& options) const;
    bool DrawRows(const std::vector<std::string>& rows) const;

    int m_fd;
    bool m_isTerminal;

    // Of the box on a terminal, counted from 1. No rows: there is none.
    unsigned int m_row = 1;
    unsigned int m_column = 1;
    size_t m_width = 0;
    size_t m_rows = 0;
};

} // namespace zorhost
