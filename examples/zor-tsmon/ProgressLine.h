#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace tsmon {

/// How far the reading of a file has come.
struct Progress
{
    std::string name;                  ///< the file's
    std::uint64_t bytes = 0;           ///< read so far
    std::optional<std::uint64_t> size; ///< of the file; nothing if it has no end that is known
    std::size_t services = 0;
    std::optional<double> bitRate; ///< bits per second, at present
    std::uint64_t continuityErrors = 0;
    bool isInputLost = false;
    bool isPacketless = false; ///< there is input, but no packets are in it
};

/// One line of text of at most @p width columns. What is too long is cut: the name first.
std::string RenderProgress(const Progress& progress, std::size_t width);

/// The last line of a terminal, redrawn in place. Does nothing if there is no terminal.
///
/// Any thread may call.
class ProgressLine
{
 public:
    /// @param file  the descriptor to write to; stays the caller's
    explicit ProgressLine(int file);

    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// Whether the descriptor is a terminal's.
    bool IsVisible() const { return m_isTerminal; }

    /// Puts this in the place of what is shown.
    void Draw(const Progress& progress);

    /// Takes the line away.
    void Clear();

    /// Has @p write write whole lines to the terminal, with the line out of the way meanwhile.
    void Around(const std::function<void()>& write);

 private:
    void WriteLocked(const std::string& text) const;
    void DrawLocked() const;

    const int m_file;
    const bool m_isTerminal;
    std::mutex m_mutex;
    std::optional<Progress> m_shown; ///< guarded by m_mutex, which is held while writing
};

} // namespace tsmon
