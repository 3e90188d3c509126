#include "Screen.h"

#include <curses.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>
#include <vector>

#include "Problem.h"
#include "Terminfo.h"

namespace zortop {
namespace {

constexpr short RED_PAIR = 1;
constexpr short YELLOW_PAIR = 2;
constexpr int ESCAPE = 27;

const std::vector<std::string> HELP{
    "Keys",
    "  < >     sort by the column before, behind     r   the other way round",
    "  o       in the order of creation              /   filter by a part of the name",
    "  f       freeze, and go on                     arrows, page up and down: scroll",
    "  h ?     this help                             q   end",
    "",
    "Columns",
    "  CPU%    of one processor    BUSY%     of the time, in handlers (by samples)",
    "  QUEUED  events that wait    PEAK      the most there ever were",
    "  REFUSED puts that found the queue full, in all",
    "  Of several queues: QUEUED in all of them, PEAK of the one that was fullest",
};

/// The terminal, for a scope.
class Terminal
{
 public:
    Terminal()
    {
        const char* const kind = std::getenv("TERM");
        if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
            throw Problem(FAILED, "there is no terminal; --batch prints reports");
        }
        if (IsKnownTerminal()) { // asked first: newterm() leaves memory behind where it fails
            m_screen = newterm(nullptr, stdout, stdin);
        }
        if (m_screen == nullptr) {
            throw Problem(FAILED, std::string("the terminal '") + (kind != nullptr ? kind : "") +
                                      "' is not known; --batch prints reports");
        }
        cbreak();
        noecho();
        keypad(stdscr, TRUE);
        curs_set(0);
        if (has_colors()) {
            start_color();
            use_default_colors();
            init_pair(RED_PAIR, COLOR_RED, -1);
            init_pair(YELLOW_PAIR, COLOR_YELLOW, -1);
        }
    }

    ~Terminal()
    {
        if (m_screen != nullptr) {
            endwin();
            delscreen(m_screen);
        }
    }

    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

 private:
    SCREEN* m_screen = nullptr;
};

chtype AttributesOf(Line::Look look)
{
    switch (look) {
        case Line::HEAD:
            return A_REVERSE;
        case Line::RED:
            return A_BOLD | static_cast<chtype>(COLOR_PAIR(RED_PAIR));
        case Line::YELLOW:
            return static_cast<chtype>(COLOR_PAIR(YELLOW_PAIR));
        default:
            return A_NORMAL;
    }
}

/// What is shown and how, as the user has set it.
class Screen
{
 public:
    Screen(Sampler* sampler, std::string title, Order order)
        : m_sampler(*sampler), m_title(std::move(title)), m_order(std::move(order))
    {}

    void Run(int msec)
    {
        m_report = m_sampler.Look(); // rates begin with the next one
        while (!m_isOver) {
            Draw();
            m_sampler.Wait(msec, [this](int wait) { return HandleKeys(wait); });
            if (!m_isOver && !m_isFrozen) {
                m_report = m_sampler.Look();
            }
        }
    }

 private:
    /// Waits for a key.
    ///
    /// @return whether the screen is to end
    bool HandleKeys(int wait)
    {
        timeout(wait);
        const int key = getch();
        if (key != ERR) {
            HandleKey(key);
            Draw();
        }
        return m_isOver;
    }

    void HandleKey(int key)
    {
        if (m_isAsking) {
            Ask(key);
            return;
        }
        const int page = std::max(LINES - 2, 1);
        switch (key) {
            case 'q':
                m_isOver = true;
                break;
            case 'h':
            case '?':
                m_isHelping = !m_isHelping;
                break;
            case 'f':
                m_isFrozen = !m_isFrozen;
                break;
            case '/':
                m_isAsking = true;
                m_order.filter.clear();
                break;
            case KEY_DOWN:
                ++m_top;
                break;
            case KEY_UP:
                --m_top;
                break;
            case KEY_NPAGE:
                m_top += page;
                break;
            case KEY_PPAGE:
                m_top -= page;
                break;
            default:
                Sort(key);
        }
    }

    void Sort(int key)
    {
        const auto count = static_cast<int>(COLUMNS);
        const int column = static_cast<int>(m_order.column);
        if (key == 'o') {
            m_order.isSorted = false;
        } else if (key == 'r') {
            m_order.isReversed = !m_order.isReversed;
        } else if (key == '<' || key == '>') {
            const int step = !m_order.isSorted ? 0 : key == '>' ? 1 : count - 1;
            m_order.column = static_cast<Column>((column + step) % count);
            m_order.isSorted = true;
        }
    }

    /// Takes a key of the filter that is being typed.
    void Ask(int key)
    {
        if (key == '\n' || key == KEY_ENTER) {
            m_isAsking = false;
        } else if (key == ESCAPE) {
            m_isAsking = false;
            m_order.filter.clear();
        } else if (key == KEY_BACKSPACE || key == 127 || key == '\b') {
            if (!m_order.filter.empty()) {
                m_order.filter.pop_back();
            }
        } else if (key >= ' ' && key < 127) {
            m_order.filter += static_cast<char>(key);
        }
    }

    std::string Title() const
    {
        std::string title = m_title + "   h: help";
        if (m_isFrozen) {
            title += "   frozen";
        }
        if (m_isAsking || !m_order.filter.empty()) {
            title += "   filter: " + m_order.filter + (m_isAsking ? "_" : "");
        }
        return title;
    }

    void Draw()
    {
        std::vector<Line> lines = Lines(m_report, m_order, Title());
        if (m_isHelping) {
            lines.resize(1);
            for (const std::string& line : HELP) {
                lines.push_back({line, Line::PLAIN});
            }
        }
        const int last = std::max(static_cast<int>(lines.size()) - LINES, 0);
        m_top = std::clamp(m_top, 0, last);
        erase();
        for (int row = 0; row < LINES; ++row) {
            // The title stays.
            const auto at = static_cast<std::size_t>(row == 0 ? 0 : row + m_top);
            if (at >= lines.size()) {
                break;
            }
            const chtype attributes = AttributesOf(lines[at].look);
            attron(attributes);
            mvaddnstr(row, 0, lines[at].text.c_str(), COLS);
            attroff(attributes);
        }
        refresh();
    }

    Sampler& m_sampler;
    const std::string m_title;
    Order m_order;
    Report m_report;
    int m_top = 0; ///< lines that are scrolled away
    bool m_isOver = false;
    bool m_isFrozen = false;
    bool m_isHelping = false;
    bool m_isAsking = false;
};

} // namespace

void RunScreen(Sampler* sampler, const std::string& title, int msec, Order order)
{
    const Terminal terminal;
    Screen(sampler, title, std::move(order)).Run(msec);
}

} // namespace zortop
