#pragma once

#include "zor/testing/Seam.h"

namespace zortest {

using zor::testing::Seam;
using zor::testing::Takeover;

} // namespace zortest
