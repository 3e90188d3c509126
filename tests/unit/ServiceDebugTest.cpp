#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

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

const std::map<int, std::string> MODES = {
    {-2, "auto"},          {-1, "unknown"},     {0, "atsc"},       {1, "dvb"},
    {2, "isdb"},           {3, "fsat"},         {4, "candig"},     {5, "tivu"},
    {6, "cdtvv"},          {7, "astra"},        {8, "digplus"},    {9, "dsmart"},
    {10, "digiturk"},      {11, "fransat"},     {12, "freeview"},  {13, "ncplus"},
    {14, "nnk"},           {15, "skylink"},     {16, "airtel"},    {17, "hdaustria"},
    {18, "otau"},          {19, "ciop1"},       {20, "ciop2"},     {21, "dvbnt"},
    {23, "polsat"},        {24, "ntvplus"},     {25, "telekarta"}, {26, "tricolor"},
    {27, "sundirect"},     {28, "digi"},        {29, "mts-sat"},   {30, "nagvexop1"},
    {31, "nagvexop2"},     {32, "nagvexop3"},   {33, "nagvexop4"}, {34, "dishtv"},
    {37, "diveo"},         {38, "simplitv"},    {39, "alma-sat"},  {40, "tkgs"},
    {41, "mychannel"},     {42, "bulgaria_a1"}, {43, "japan-bs"},  {44, "japan-cs"},
    {45, "freesat_m7"},    {46, "upcdirect"},   {47, "focussat"},  {48, "slovak_telekom"},
    {49, "digi_slovakia"}, {50, "t_mobile_cz"}, {51, "telly_cz"},  {52, "Osterreichliste"},
    {53, "Prosieben"},
};

const std::map<int, std::string> PROFILES = {
    {-1, "unknown"},
    {0, "atsc"},
    {1, "isdb"},
    {2, "dvb"},
    {3, "fsat"},
    {4, "candig"},
    {5, "tive"},
    {6, "cdtvv"},
    {7, "astra"},
    {8, "digplus"},
    {9, "dsmart"},
    {10, "digiturk"},
    {11, "fransat"},
    {12, "freeview"},
    {13, "ncplus"},
    {14, "nnk"},
    {15, "skylink"},
    {16, "airtel"},
    {17, "hdaustria"},
    {18, "otau"},
    {19, "ciop1"},
    {20, "ciop2"},
    {21, "dvbnt"},
    {23, "stb"},
    {24, "polsat"},
    {25, "tricolor"},
    {26, "telekarta"},
    {27, "ntvplus"},
    {28, "sundirect"},
    {29, "digi"},
    {30, "mts-sat"},
    {31, "nagvexop1"},
    {32, "nagvexop2"},
    {33, "nagvexop3"},
    {34, "nagvexop4"},
    {35, "dishtv"},
    {39, "diveo"},
    {40, "simplitv"},
    {41, "alma-sat"},
    {42, "tkgs"},
    {43, "bulgaria_a1"},
    {44, "japan-bs"},
    {45, "japan-cs"},
    {46, "freesat-m7"},
    {47, "upcdirect"},
    {48, "focussat"},
    {49, "slovak-telekom"},
    {50, "digi-slovakia"},
    {51, "t-mobile-cz"},
    {52, "telly-cz"},
    {53, "Osterreichliste"},
    {54, "Prosieben"},
};

std::string Expected(const std::map<int, std::string>& texts, int value)
{
    const auto text = texts.find(value);
    return text != texts.end() ? text->second : "inv";
}

constexpr const char* CHANNEL_TYPES[16] = {"inv", "atv",  "dtv",   "catv", "cdtv", "inv",
                                           "inv", "sdtv", "media", "virt", "iptv", "hotel-ext",
                                           "inv", "inv",  "inv",   "inv"};

std::string Text(unsigned long long id)
{
    return TCZorServiceDebug::ToString(id);
}

std::string Hex(unsigned long long value)
{
    char text[32];
    snprintf(text, sizeof(text), "0x%llX", value);
    return text;
}

TEST(ServiceDebugTest, EveryModeHasItsText)
{
    for (int value = -3; value <= 60; ++value) {
        EXPECT_EQ(Exposed(ModeTag())(static_cast<EServiceMode>(value)), Expected(MODES, value))
            << value;
    }
}

TEST(ServiceDebugTest, EveryProfileHasItsText)
{
    for (int value = -3; value <= 60; ++value) {
        EXPECT_EQ(Exposed(ProfileTag())(static_cast<EServiceProfile>(value)),
                  Expected(PROFILES, value))
            << value;
    }
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

TEST(ServiceDebugTest, ModeShowsBroadcastTypeAndServiceMode)
{
    const std::map<int, std::string> types = {
        {-2, "auto"}, {-1, "und"}, {0, "air"}, {1, "cbl"}, {2, "sat"}};
    for (int type = -4; type <= 5; ++type) {
        TSTvMode mode;
        mode.broadcastType = type;
        mode.serviceMode = SERVICE_MODE_DVB;
        EXPECT_EQ(TCZorServiceDebug::ToString(mode), Expected(types, type) + "-dvb") << type;
    }
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

/// 200 ids over the layouts, put together here field by field.
TEST(ServiceDebugTest, GoldenIds)
{
    unsigned int state = 12345;
    const auto random = [&state](unsigned int limit) {
        state = state * 1103515245 + 12345;
        return (state >> 8) % limit;
    };
    for (int i = 0; i < 200; ++i) {
        const unsigned int profile = random(64);
        const unsigned int number = random(0x8000);
        if (i % 3 == 0) {
            const unsigned int type = 1 + random(15);
            const unsigned int major = random(0x2000);
            const unsigned int minor = random(1020);
            const unsigned int program = random(0x10000);
            const unsigned long long id = static_cast<unsigned long long>(type) << 60 |
                                          static_cast<unsigned long long>(number) << 45 |
                                          static_cast<unsigned long long>(profile) << 39 |
                                          static_cast<unsigned long long>(program) << 23 |
                                          major << 10 | minor;
            if (id >> 56 == 0xFA) {
                continue;
            }
            EXPECT_EQ(Text(id),
                      Hex(id) + " (cT:" + CHANNEL_TYPES[type] +
                          ",sP:" + Expected(PROFILES, static_cast<int>(profile)) +
                          ",cN:" + std::to_string(number) + ",mj:" + std::to_string(major) +
                          ",mn:" + std::to_string(minor) + ",pN:" + std::to_string(program) + ")");
        } else if (i % 3 == 1) {
            const unsigned int type = random(16);
            const unsigned long long unused = static_cast<unsigned long long>(random(0x100)) << 40;
            const unsigned long long id = unused | type << 21 | number << 6 | profile;
            EXPECT_EQ(Text(id), Hex(id) + " (defSrv)(cT:" + CHANNEL_TYPES[type] +
                                    ",sP:" + Expected(PROFILES, static_cast<int>(profile)) +
                                    ",cN:" + std::to_string(number) + ")");
        } else {
            const unsigned int type = random(16);
            const unsigned long long id = 0xFA00000000000000 | type << 16 | number;
            EXPECT_EQ(Text(id), Hex(id) + " (dirTune)(cT:" + CHANNEL_TYPES[type] +
                                    ",cN:" + std::to_string(number) + ")");
        }
    }
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

} // namespace
