#pragma once

#include <filesystem>
#include <fstream>
#include <string>

namespace zortest {

/// How many threads of this process have that name.
inline int CountThreadsNamed(const std::string& name)
{
    int count = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(thread.path() / "comm");
        std::string threadName;
        std::getline(file, threadName);
        count += threadName == name ? 1 : 0;
    }
    return count;
}

} // namespace zortest
