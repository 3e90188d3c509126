#pragma once

#include "Seam.h"

namespace zortest {

/// The dynamic loader. Its look-up of symbols cannot be taken over: everybody's look-ups of their
/// own libraries' functions would go astray.
extern Seam<void*(const char*, int)> dlopenSeam;
extern Seam<int(void*)> dlcloseSeam;
extern Seam<char*()> dlerrorSeam;

} // namespace zortest
