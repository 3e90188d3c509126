#pragma once

#include <cstddef>

namespace zorhost {

/// Writes the name of a function as its source has it: "zor::Reply::Wait" for
/// "_ZN3zor5Reply4WaitEv". Parameters are left out, and of templates their arguments:
/// "std::function<...>::operator()".
///
/// Allocates nothing and takes no lock, so that it may be called while another thread hangs with
/// the heap's lock; the demangler of the C++ library allocates.
///
/// @param symbol  the loader's name of the function
/// @param name    where to; cut off at @p size, and always ended
/// @param size    at least 1
void WriteFunctionName(const char* symbol, char* name, std::size_t size);

} // namespace zorhost
