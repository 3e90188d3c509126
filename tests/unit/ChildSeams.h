#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Seam.h"

namespace zortest {

/// Making child processes. A vfork() that is not taken over is a fork(): the parent does not wait.
extern Seam<pid_t()> forkSeam;
extern Seam<pid_t()> vforkSeam;

/// The program's path and all its arguments, the name first.
extern Seam<int(const std::string&, const std::vector<std::string>&)> execlSeam;

/// system()
extern Seam<int(const char*)> systemSeam;

} // namespace zortest
