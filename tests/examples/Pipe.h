#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "StreamBuilder.h"

namespace made {

/// The write end of a named pipe that is read elsewhere, kept open until Close().
class Pipe
{
 public:
    /// Makes the pipe at @p path.
    explicit Pipe(const std::string& path)
    {
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        // For both directions, so that the opening waits for nobody.
        m_file = open(path.c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_GE(m_file, 0);
    }

    ~Pipe() { Close(); }

    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    /// @p bytes must fit into the pipe.
    void Write(const Bytes& bytes) const
    {
        EXPECT_EQ(write(m_file, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    std::size_t Unread() const
    {
        int count = 0;
        EXPECT_EQ(ioctl(m_file, FIONREAD, &count), 0);
        return static_cast<std::size_t>(count);
    }

    void Close()
    {
        if (m_file >= 0) {
            close(m_file);
        }
        m_file = -1;
    }

 private:
    int m_file = -1;
};

} // namespace made
