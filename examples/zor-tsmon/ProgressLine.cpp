#include "ProgressLine.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "Terminal.h"
#include "TextTable.h"

namespace tsmon {

namespace {

/// To the line's begin, and away with everything on it.
constexpr const char* ERASE = "\r\033[K";

constexpr const char* GAP = "  ";

std::string Megabytes(std::uint64_t bytes)
{
    char text[48];
    std::snprintf(text, sizeof(text), "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

std::string Percent(std::uint64_t bytes, std::uint64_t size)
{
    const double part = static_cast<double>(bytes) / static_cast<double>(size);
    return std::to_string(static_cast<int>(100 * std::min(part, 1.0))) + "%";
}

std::string Count(std::uint64_t number, const char* one)
{
    return std::to_string(number) + " " + one + (number == 1 ? "" : "s");
}

std::string Figures(const Progress& progress)
{
    std::string text;
    if (progress.size && *progress.size > 0) {
        text += Percent(progress.bytes, *progress.size) + GAP;
    }
    text += Megabytes(progress.bytes) + GAP + Count(progress.services, "service");
    if (progress.bitRate) {
        char rate[48];
        std::snprintf(rate, sizeof(rate), "%.1f kbit/s", *progress.bitRate / 1000);
        text += std::string(GAP) + rate;
    }
    text += GAP + Count(progress.continuityErrors, "continuity error");
    if (progress.isPacketless) {
        return "no packets" + (GAP + text);
    }
    return progress.isInputLost ? "no input" + (GAP + text) : text;
}

} // namespace

std::string RenderProgress(const Progress& progress, std::size_t width)
{
    const std::string figures = Figures(progress);
    const std::size_t taken = DisplayWidth(figures) + std::string(GAP).size();
    const std::string name = taken < width ? Clip(progress.name, width - taken) : std::string();
    return name.empty() ? Clip(figures, width) : name + GAP + figures;
}

ProgressLine::ProgressLine(int file) : m_file(file), m_isTerminal(isatty(file) == 1) {}

void ProgressLine::Draw(const Progress& progress)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_isTerminal) {
        m_shown = progress;
        DrawLocked();
    }
}

void ProgressLine::Clear()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_shown) {
        WriteLocked(ERASE);
        m_shown.reset();
    }
}

void ProgressLine::Around(const std::function<void()>& write)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_shown) {
        WriteLocked(ERASE);
    }
    write();
    if (m_shown) {
        DrawLocked();
    }
}

/// The last column stays free: some terminals go on to the next line behind it.
void ProgressLine::DrawLocked() const
{
    const std::size_t width = WidthOf(m_file);
    WriteLocked(ERASE + RenderProgress(*m_shown, width > 1 ? width - 1 : 1));
}

/// A line that cannot be written is not missed.
void ProgressLine::WriteLocked(const std::string& text) const
{
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t result = write(m_file, text.data() + written, text.size() - written);
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result <= 0) {
            return;
        }
        written += static_cast<std::size_t>(result);
    }
}

} // namespace tsmon
