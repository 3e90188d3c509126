#include "ChildSeams.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdlib>

namespace zortest {

Seam<pid_t()> forkSeam("fork");
Seam<pid_t()> vforkSeam("fork");
Seam<int(const std::string&, const std::vector<std::string>&)> execlSeam("nobody may start it");
Seam<int(const char*)> systemSeam("system");

} // namespace zortest

extern "C" pid_t fork() noexcept
{
    return zortest::forkSeam();
}

extern "C" pid_t vfork() noexcept
{
    return zortest::vforkSeam();
}

extern "C" int execl(const char* path, const char* name, ...) noexcept
{
    std::vector<std::string> arguments;
    va_list list;
    va_start(list, name);
    for (const char* argument = name; argument != nullptr; argument = va_arg(list, const char*)) {
        arguments.emplace_back(argument);
    }
    va_end(list);
    return zortest::execlSeam(path, arguments);
}

extern "C" int system(const char* command)
{
    return zortest::systemSeam(command);
}
