#include "ZorSim.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>

Ran RunShell(const std::string& command)
{
    Ran ran;
    std::FILE* const pipe = popen((command + " 2>&1").c_str(), "re");
    if (pipe == nullptr) {
        return ran;
    }
    std::array<char, 4096> buffer;
    for (std::size_t count; (count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
        ran.text.append(buffer.data(), count);
    }
    const int status = pclose(pipe);
    ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return ran;
}

Ran RunSim(const std::string& options, const std::string& program)
{
    return RunShell(SIM_TOOL " " + options +
                    (program.empty() ? "" : " -- " SIM_PROGRAMS "/sim-" + program));
}

std::string LineAfter(const std::string& text, const std::string& begin)
{
    const std::size_t at = text.find(begin);
    if (at == std::string::npos) {
        return {};
    }
    const std::size_t from = at + begin.size();
    return text.substr(from, text.find('\n', from) - from);
}
