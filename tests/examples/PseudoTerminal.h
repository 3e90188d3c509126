#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>

namespace made {

/// A terminal whose screen is the test.
class PseudoTerminal
{
 public:
    explicit PseudoTerminal(unsigned short columns)
        : m_screen(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        EXPECT_GE(m_screen, 0);
        EXPECT_EQ(grantpt(m_screen), 0);
        EXPECT_EQ(unlockpt(m_screen), 0);
        m_file = open(ptsname(m_screen), O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(m_file, 0);
        const winsize size = {40, columns, 0, 0};
        EXPECT_EQ(ioctl(m_file, TIOCSWINSZ, &size), 0);
    }

    ~PseudoTerminal()
    {
        close(m_file);
        close(m_screen);
    }

    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    /// What a program writes to.
    int File() const { return m_file; }

    /// What has been written since the last call.
    std::string Written() const
    {
        std::string text;
        pollfd screen = {m_screen, POLLIN, 0};
        while (poll(&screen, 1, 0) == 1) {
            char buffer[256];
            const ssize_t size = read(m_screen, buffer, sizeof(buffer));
            if (size <= 0) {
                break;
            }
            text.append(buffer, static_cast<std::size_t>(size));
        }
        return text;
    }

 private:
    int m_screen;
    int m_file = -1;
};

} // namespace made
