#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "KeyCombinationLoggerRegistration.h"
#include "Main.h"

// A daemon that listens for key combinations, with the library that its first argument names, until
// standard input ends. Starts of programs are reported on standard output and then go their way.

extern "C" int execl(const char* path, const char* name, ...) noexcept
{
    std::vector<char*> arguments;
    va_list list;
    va_start(list, name);
    for (const char* text = name; text != nullptr; text = va_arg(list, const char*)) {
        arguments.push_back(const_cast<char*>(text));
    }
    va_end(list);
    dprintf(STDOUT_FILENO, "start %d %d %s\n", getpid(), static_cast<int>(arguments.size()), path);
    arguments.push_back(nullptr);
    return execv(path, arguments.data());
}

int Main()
{
    KeyCombinationLoggerRegistration::m_LIBRARY_PATH = gArgv[1];
    KeyCombinationLoggerRegistration::Initialize();
    dprintf(STDOUT_FILENO, "initialized\n");
    char ignored;
    while (read(STDIN_FILENO, &ignored, 1) > 0) {
    }
    KeyCombinationLoggerRegistration::Exit();
    dprintf(STDOUT_FILENO, "exited\n");
    return KeyCombinationLoggerRegistration::m_handle == nullptr ? 0 : 1;
}
