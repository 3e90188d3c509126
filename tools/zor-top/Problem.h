#pragma once

#include <stdexcept>
#include <string>

namespace zortop {

/// Exit codes; those of zor-inspect that apply here.
enum ExitCode
{
    SUCCESS = 0,
    USAGE = 1,         ///< bad options
    NO_TARGET = 2,     ///< there is no such process, or not the only one
    NO_PERMISSION = 3, ///< the process may not be looked into
    NOT_ZOR_CORE = 4,  ///< it has no runtime, or one that this tool cannot read
    FAILED = 7,        ///< the output cannot be written, or there is no terminal
};

/// Ends the tool with a message, cause first, and an exit code.
class Problem : public std::runtime_error
{
 public:
    Problem(ExitCode code, const std::string& text) : std::runtime_error(text), m_code(code) {}

    ExitCode Code() const { return m_code; }

 private:
    ExitCode m_code;
};

} // namespace zortop
