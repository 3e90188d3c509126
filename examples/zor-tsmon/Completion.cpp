#include "Completion.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace tsmon {

Completion::Completion() : m_file(eventfd(0, EFD_CLOEXEC)) {}

Completion::~Completion()
{
    if (IsValid()) {
        close(m_file);
    }
}

void Completion::Set()
{
    // Cannot fail: the counter is far from its end.
    eventfd_write(m_file, 1);
}

} // namespace tsmon
