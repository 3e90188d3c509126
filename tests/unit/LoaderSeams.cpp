#include "LoaderSeams.h"

namespace zortest {

Seam<void*(const char*, int)> dlopenSeam("dlopen");
Seam<int(void*)> dlcloseSeam("dlclose");
Seam<char*()> dlerrorSeam("dlerror");

} // namespace zortest

extern "C" void* dlopen(const char* file, int mode) noexcept
{
    return zortest::dlopenSeam(file, mode);
}

extern "C" int dlclose(void* library) noexcept
{
    return zortest::dlcloseSeam(library);
}

extern "C" char* dlerror() noexcept
{
    return zortest::dlerrorSeam();
}
