#include "ServiceId.h"

#include <gtest/gtest.h>

#include "ZorServiceDebug.h"

namespace {

using tsmon::PackServiceId;

TEST(ServiceIdTest, IdIsShownAsADvbTelevisionServiceOfItsStream)
{
    EXPECT_EQ(TCZorServiceDebug::ToString(PackServiceId(2049, 101)),
              "0x2000010032A00400 (cT:dtv,sP:dvb,cN:0,mj:2049,mn:0,pN:101)");
}

TEST(ServiceIdTest, MajorNumberIsTheStreamIdsLow13Bits)
{
    EXPECT_EQ(TCZorServiceDebug::ToString(PackServiceId(0xFFFF, 0)),
              "0x20000100007FFC00 (cT:dtv,sP:dvb,cN:0,mj:8191,mn:0,pN:0)");
    EXPECT_EQ(PackServiceId(0x2001, 5), PackServiceId(0x0001, 5));
}

TEST(ServiceIdTest, ProgramNumberHas16Bits)
{
    EXPECT_EQ(TCZorServiceDebug::ToString(PackServiceId(0, 0xFFFF)),
              "0x2000017FFF800000 (cT:dtv,sP:dvb,cN:0,mj:0,mn:0,pN:65535)");
}

} // namespace
