#include "TaskAppDataSeam.h"

namespace zortest {

Seam<const TSAppData&(const TCDebugPrint*)> getAppDataSeam("_ZNK12TCDebugPrint10GetAppDataEv");

} // namespace zortest

const TSAppData& TCDebugPrint::GetAppData() const
{
    return zortest::getAppDataSeam(this);
}
