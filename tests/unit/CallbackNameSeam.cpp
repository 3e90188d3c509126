#include "CallbackNameSeam.h"

namespace zortest {

Seam<void(TCDebugPrintZOR*, const std::string&)> setCallbackNameSeam(
    "_ZN15TCDebugPrintZOR15SetCallbackNameERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");

} // namespace zortest

void TCDebugPrintZOR::SetCallbackName(const std::string& name)
{
    zortest::setCallbackNameSeam(this, name);
}
