#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace zorhost {

/// The FIFO that keys are pressed through. Writers come and go: the last line of the last of them
/// needs no line end.
///
/// Used by one thread at a time. What goes wrong is told on standard error.
class TCKeyFifo
{
 public:
    /// Gets one line, without its end.
    using LineSink = std::function<void(std::string_view)>;

    enum class EResult
    {
        DATA,    ///< there may be more at once
        WAITING, ///< nothing more until Fd() is readable
        BROKEN   ///< no more lines will come
    };

    TCKeyFifo() = default;
    ~TCKeyFifo() { Close(); }

    TCKeyFifo(const TCKeyFifo&) = delete;
    TCKeyFifo& operator=(const TCKeyFifo&) = delete;

    /// @return false, having said why, if @p path is no FIFO that can be read
    bool Open(const char* path);
    void Close();

    /// Readable when there is something for Read().
    int Fd() const { return m_fd; }

    /// Reads what there is, at most a few kilobytes, and hands out the lines that it completes.
    EResult Read(const LineSink& sink);

 private:
    void Take(std::string_view part, const LineSink& sink);
    void EndLine(const LineSink& sink);
    bool Reopen();

    int m_fd = -1;
    std::string m_line;     ///< what has come of a line so far
    bool m_tooLong = false; ///< the rest of this line is passed over
};

} // namespace zorhost
