#pragma once

#include <atomic>
#include <string>

#include "ProgressLine.h"
#include "ZorServiceDebugOverlay.h"

namespace tsmon {

/// Passes log entries on to another logger, with a progress line out of their way.
class ProgressLogger : public IZORLogger
{
 public:
    /// Both must live as long as anything can log.
    ProgressLogger(ProgressLine& line, IZORLogger& next) : m_line(line), m_next(next) {}

    void ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                const char* prettyFunction, const char* function, int scope, int classBegin,
                int classEnd, int functionBegin, int functionEnd, int line, const char* fmt,
                va_list* args) override;
    const std::string& GetLoggerId() const override { return m_id; }

 private:
    const std::string m_id = "zor-tsmon progress logger";
    ProgressLine& m_line;
    IZORLogger& m_next;
    std::atomic<bool> m_isAnnounced{false};
};

} // namespace tsmon
