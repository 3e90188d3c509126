#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "Wait.h"

namespace zortest {

/// All that is written in a file so far, from its beginning.
inline std::string FileText(int file)
{
    std::string text;
    char part[4096];
    off_t at = 0;
    for (ssize_t got = 0; (got = pread(file, part, sizeof(part), at)) > 0; at += got) {
        text.append(part, static_cast<size_t>(got));
    }
    return text;
}

/// Takes this process's standard error, and that of its children, for as long as it lives.
class CapturedErrors
{
 public:
    CapturedErrors() : m_former(dup(STDERR_FILENO)), m_file(memfd_create("errors", MFD_CLOEXEC))
    {
        dup2(m_file, STDERR_FILENO);
    }

    ~CapturedErrors()
    {
        dup2(m_former, STDERR_FILENO);
        close(m_former);
        close(m_file);
    }

    CapturedErrors(const CapturedErrors&) = delete;
    CapturedErrors& operator=(const CapturedErrors&) = delete;

    std::string Text() const { return FileText(m_file); }

    /// Waits until @p part has been written.
    /// @return false if it is not in time
    bool WaitFor(const std::string& part) const
    {
        return Eventually([&] { return Text().find(part) != std::string::npos; });
    }

 private:
    int m_former;
    int m_file;
};

} // namespace zortest
