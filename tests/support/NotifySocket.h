#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

namespace zortest {

/// A service manager's end of the socket on which a service says how it is. It has no file: its
/// name is in the abstract name space, and has this process's id unless another one is given.
class NotifySocket
{
 public:
    explicit NotifySocket(std::string name = "zor-notify-" + std::to_string(getpid()))
        : m_name(std::move(name))
    {
        m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path + 1, m_name.data(), m_name.size());
        const socklen_t length = offsetof(struct sockaddr_un, sun_path) + 1 + m_name.size();
        if (bind(m_socket, reinterpret_cast<struct sockaddr*>(&address), length) != 0) {
            abort();
        }
    }

    ~NotifySocket() { close(m_socket); }

    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// What NOTIFY_SOCKET has to be in the service's environment.
    std::string Address() const { return "@" + m_name; }

    /// Waits for the next message and returns it; empty if none comes in a minute.
    std::string Next()
    {
        struct pollfd readable = {m_socket, POLLIN, 0};
        return poll(&readable, 1, 60 * 1000) == 1 ? Take() : std::string();
    }

    /// The next message if it is there already; empty otherwise.
    std::string Take()
    {
        char message[256];
        const ssize_t length = recv(m_socket, message, sizeof(message), MSG_DONTWAIT);
        return length > 0 ? std::string(message, length) : std::string();
    }

    /// Takes what is there, and for a moment what comes.
    void Drain()
    {
        struct pollfd readable = {m_socket, POLLIN, 0};
        while (poll(&readable, 1, 10) == 1) {
            Take();
        }
    }

 private:
    const std::string m_name;
    int m_socket = -1;
};

} // namespace zortest
