#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "TCDebugPrint.h"
#include "ZorServiceDebug.h"

namespace {

using TextOfMode = std::string (*)(EServiceMode);
using TextOfProfile = std::string (*)(EServiceProfile);

/// The texts of modes and profiles are private; an explicit instantiation may name private members.
template <typename Tag, typename Function, Function function>
struct Expose
{
    friend Function Exposed(Tag) { return function; }
};

struct ModeTag
{
    friend TextOfMode Exposed(ModeTag);
};
struct ProfileTag
{
    friend TextOfProfile Exposed(ProfileTag);
};

template struct Expose<ModeTag, TextOfMode, &TCZorServiceDebug::m_ToString>;
template struct Expose<ProfileTag, TextOfProfile, &TCZorServiceDebug::m_ToString>;

std::string Text(unsigned long long id)
{
    return TCZorServiceDebug::ToString(id);
}

/// What one line of ServiceDebugTexts.txt is about, as the library shows it.
std::string TextOf(const std::string& line)
{
    std::istringstream fields(line);
    std::string kind;
    fields >> kind;
    if (kind == "id") {
        unsigned long long id = 0;
        fields >> std::hex >> id;
        return Text(id);
    }
    int value = 0;
    fields >> value;
    if (kind == "mode") {
        return Exposed(ModeTag())(static_cast<EServiceMode>(value));
    }
    if (kind == "profile") {
        return Exposed(ProfileTag())(static_cast<EServiceProfile>(value));
    }
    int mode = 0;
    fields >> mode;
    TSTvMode tvMode;
    tvMode.broadcastType = value;
    tvMode.serviceMode = static_cast<EServiceMode>(mode);
    return TCZorServiceDebug::ToString(tvMode);
}

/// The file is made by make_service_debug_texts.py, which knows nothing of the library.
TEST(ServiceDebugTest, ValuesAreShownAsTheListSays)
{
    std::ifstream file(SERVICE_DEBUG_TEXTS);
    ASSERT_TRUE(file) << SERVICE_DEBUG_TEXTS;
    std::map<std::string, int> lines;
    for (std::string line; std::getline(file, line);) {
        const std::size_t tab = line.find('\t');
        ASSERT_NE(tab, std::string::npos) << line;
        EXPECT_EQ(TextOf(line.substr(0, tab)), line.substr(tab + 1)) << line;
        ++lines[line.substr(0, line.find(' '))];
    }
    const std::map<std::string, int> expected = {
        {"mode", 64}, {"profile", 64}, {"tvmode", 50}, {"id", 200}};
    EXPECT_EQ(lines, expected);
}

TEST(ServiceDebugTest, ValuesFarOutsideTheTablesAreInvalid)
{
    EXPECT_EQ(Exposed(ModeTag())(static_cast<EServiceMode>(INT_MIN)), "inv");
    EXPECT_EQ(Exposed(ModeTag())(static_cast<EServiceMode>(INT_MAX)), "inv");
    EXPECT_EQ(Exposed(ProfileTag())(static_cast<EServiceProfile>(INT_MIN)), "inv");
    EXPECT_EQ(Exposed(ProfileTag())(static_cast<EServiceProfile>(INT_MAX)), "inv");
}

TEST(ServiceDebugTest, HandleIsTwoNumbers)
{
    EXPECT_EQ(TCZorServiceDebug::ToString(ZORHandle{3, -4}), "3--4");
}

TEST(ServiceDebugTest, HandleIsCutAt19Characters)
{
    EXPECT_EQ(TCZorServiceDebug::ToString(ZORHandle{INT_MIN, INT_MIN}), "-2147483648--214748");
}

TEST(ServiceDebugTest, LongestTextsFit)
{
    TSTvMode mode;
    mode.broadcastType = -2;
    mode.serviceMode = SERVICE_MODE_OSTERREICHLISTE;
    EXPECT_EQ(TCZorServiceDebug::ToString(mode), "auto-Osterreichliste");
    EXPECT_EQ(Text((0xBFFFFFFFFFFFFFFE & ~(0x3FULL << 39)) | (53ULL << 39)),
              "0xBFFFFAFFFFFFFFFE (cT:hotel-ext,sP:Osterreichliste,cN:32767,mj:8191,mn:65534,"
              "pN:65535)");
}

TEST(ServiceDebugTest, ModeOf22ShowsInvalid)
{
    TSTvMode mode;
    mode.broadcastType = 3;
    mode.serviceMode = static_cast<EServiceMode>(22);
    EXPECT_EQ(TCZorServiceDebug::ToString(mode), "inv-inv");
}

TEST(ServiceDebugTest, ModeShowsTheFifthAndSixthField)
{
    const std::int32_t fields[6] = {11, 12, 13, 14, 2, 7};
    TSTvMode mode;
    static_assert(sizeof(mode) == sizeof(fields));
    memcpy(&mode, fields, sizeof(mode));
    EXPECT_EQ(TCZorServiceDebug::ToString(mode), "sat-astra");
}

TEST(ServiceDebugTest, AllOnesIsTheInvalidId)
{
    EXPECT_EQ(Text(0xFFFFFFFFFFFFFFFF), "INVALID_SERVICE_ID");
    EXPECT_NE(Text(0xFFFFFFFFFFFFFFFE), "INVALID_SERVICE_ID");
}

TEST(ServiceDebugTest, DirectTune)
{
    EXPECT_EQ(Text(0xFA000000000B0005), "0xFA000000000B0005 (dirTune)(cT:hotel-ext,cN:5)");
    EXPECT_EQ(Text(0xFA000000000C0005), "0xFA000000000C0005 (dirTune)(cT:inv,cN:5)");
    EXPECT_EQ(Text(0xFA00000001020005), "0xFA00000001020005 (dirTune)(cT:inv,cN:5)");
    EXPECT_EQ(Text(0xFA1234560002FFFF), "0xFA1234560002FFFF (dirTune)(cT:dtv,cN:65535)");
}

TEST(ServiceDebugTest, ReservedMinorNumbersAreShownAs16Bits)
{
    const unsigned long long id = 0x2000000000000000;
    const auto minor = [&](unsigned long long number) {
        const std::string text = Text(id | number);
        return text.substr(text.find("mn:"), text.find(",pN") - text.find("mn:"));
    };
    EXPECT_EQ(minor(1019), "mn:1019");
    EXPECT_EQ(minor(1020), "mn:65532");
    EXPECT_EQ(minor(1021), "mn:65533");
    EXPECT_EQ(minor(1022), "mn:65534");
    EXPECT_EQ(minor(1023), "mn:1023");
    EXPECT_EQ(minor(0), "mn:0");
}

TEST(CallbackNameSetterTest, NameIsSetForAScope)
{
    {
        const TCCallbackNameSetter name("cb-test");
        EXPECT_EQ(TCDebugPrintZOR::GetInstance()->GetCallbackName(), "cb-test");
        {
            const TCCallbackNameSetter inner("inner");
            EXPECT_EQ(TCDebugPrintZOR::GetInstance()->GetCallbackName(), "inner");
        }
        EXPECT_EQ(TCDebugPrintZOR::GetInstance()->GetCallbackName(), "");
    }
    EXPECT_EQ(TCDebugPrintZOR::GetInstance()->GetCallbackName(), "");
}

TEST(CallbackNameSetterTest, NameIsThatOfTheThread)
{
    const TCCallbackNameSetter name("cb-test");
    std::thread other([] {
        EXPECT_EQ(TCDebugPrintZOR::GetInstance()->GetCallbackName(), "");
        const TCCallbackNameSetter its("cb-other");
        EXPECT_EQ(TCDebugPrintZOR::GetInstance()->GetCallbackName(), "cb-other");
    });
    other.join();
    EXPECT_EQ(TCDebugPrintZOR::GetInstance()->GetCallbackName(), "cb-test");
}

} // namespace
