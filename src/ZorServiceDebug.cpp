#include "ZorServiceDebug.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>

#include "TCDebugPrint.h"

namespace {

constexpr char INVALID[] = "inv";

/// What a value is shown as.
struct Text
{
    long long value;
    const char* text;
};

// The two big tables differ in names and in order on purpose, and are kept apart.

constexpr Text MODES[] = {
    {SERVICE_MODE_AUTO, "auto"},
    {SERVICE_MODE_UNKNOWN, "unknown"},
    {SERVICE_MODE_ATSC, "atsc"},
    {SERVICE_MODE_DVB, "dvb"},
    {SERVICE_MODE_ISDB, "isdb"},
    {SERVICE_MODE_FSAT, "fsat"},
    {SERVICE_MODE_CANDIG, "candig"},
    {SERVICE_MODE_TIVU, "tivu"},
    {SERVICE_MODE_CDTVV, "cdtvv"},
    {SERVICE_MODE_ASTRA, "astra"},
    {SERVICE_MODE_DIGPLUS, "digplus"},
    {SERVICE_MODE_DSMART, "dsmart"},
    {SERVICE_MODE_DIGITURK, "digiturk"},
    {SERVICE_MODE_FRANSAT, "fransat"},
    {SERVICE_MODE_FREEVIEW, "freeview"},
    {SERVICE_MODE_NCPLUS, "ncplus"},
    {SERVICE_MODE_NNK, "nnk"},
    {SERVICE_MODE_SKYLINK, "skylink"},
    {SERVICE_MODE_AIRTEL, "airtel"},
    {SERVICE_MODE_HDAUSTRIA, "hdaustria"},
    {SERVICE_MODE_OTAU, "otau"},
    {SERVICE_MODE_CIOP1, "ciop1"},
    {SERVICE_MODE_CIOP2, "ciop2"},
    {SERVICE_MODE_DVBNT, "dvbnt"},
    {SERVICE_MODE_POLSAT, "polsat"},
    {SERVICE_MODE_NTVPLUS, "ntvplus"},
    {SERVICE_MODE_TELEKARTA, "telekarta"},
    {SERVICE_MODE_TRICOLOR, "tricolor"},
    {SERVICE_MODE_SUNDIRECT, "sundirect"},
    {SERVICE_MODE_DIGI, "digi"},
    {SERVICE_MODE_MTS_SAT, "mts-sat"},
    {SERVICE_MODE_NAGVEXOP1, "nagvexop1"},
    {SERVICE_MODE_NAGVEXOP2, "nagvexop2"},
    {SERVICE_MODE_NAGVEXOP3, "nagvexop3"},
    {SERVICE_MODE_NAGVEXOP4, "nagvexop4"},
    {SERVICE_MODE_DISHTV, "dishtv"},
    {SERVICE_MODE_DIVEO, "diveo"},
    {SERVICE_MODE_SIMPLITV, "simplitv"},
    {SERVICE_MODE_ALMA_SAT, "alma-sat"},
    {SERVICE_MODE_TKGS, "tkgs"},
    {SERVICE_MODE_MYCHANNEL, "mychannel"},
    {SERVICE_MODE_BULGARIA_A1, "bulgaria_a1"},
    {SERVICE_MODE_JAPAN_BS, "japan-bs"},
    {SERVICE_MODE_JAPAN_CS, "japan-cs"},
    {SERVICE_MODE_FREESAT_M7, "freesat_m7"},
    {SERVICE_MODE_UPCDIRECT, "upcdirect"},
    {SERVICE_MODE_FOCUSSAT, "focussat"},
    {SERVICE_MODE_SLOVAK_TELEKOM, "slovak_telekom"},
    {SERVICE_MODE_DIGI_SLOVAKIA, "digi_slovakia"},
    {SERVICE_MODE_T_MOBILE_CZ, "t_mobile_cz"},
    {SERVICE_MODE_TELLY_CZ, "telly_cz"},
    {SERVICE_MODE_OSTERREICHLISTE, "Osterreichliste"},
    {SERVICE_MODE_PROSIEBEN, "Prosieben"},
};

constexpr Text PROFILES[] = {
    {SERVICE_PROFILE_UNKNOWN, "unknown"},
    {SERVICE_PROFILE_ATSC, "atsc"},
    {SERVICE_PROFILE_ISDB, "isdb"},
    {SERVICE_PROFILE_DVB, "dvb"},
    {SERVICE_PROFILE_FSAT, "fsat"},
    {SERVICE_PROFILE_CANDIG, "candig"},
    {SERVICE_PROFILE_TIVE, "tive"},
    {SERVICE_PROFILE_CDTVV, "cdtvv"},
    {SERVICE_PROFILE_ASTRA, "astra"},
    {SERVICE_PROFILE_DIGPLUS, "digplus"},
    {SERVICE_PROFILE_DSMART, "dsmart"},
    {SERVICE_PROFILE_DIGITURK, "digiturk"},
    {SERVICE_PROFILE_FRANSAT, "fransat"},
    {SERVICE_PROFILE_FREEVIEW, "freeview"},
    {SERVICE_PROFILE_NCPLUS, "ncplus"},
    {SERVICE_PROFILE_NNK, "nnk"},
    {SERVICE_PROFILE_SKYLINK, "skylink"},
    {SERVICE_PROFILE_AIRTEL, "airtel"},
    {SERVICE_PROFILE_HDAUSTRIA, "hdaustria"},
    {SERVICE_PROFILE_OTAU, "otau"},
    {SERVICE_PROFILE_CIOP1, "ciop1"},
    {SERVICE_PROFILE_CIOP2, "ciop2"},
    {SERVICE_PROFILE_DVBNT, "dvbnt"},
    {SERVICE_PROFILE_STB, "stb"},
    {SERVICE_PROFILE_POLSAT, "polsat"},
    {SERVICE_PROFILE_TRICOLOR, "tricolor"},
    {SERVICE_PROFILE_TELEKARTA, "telekarta"},
    {SERVICE_PROFILE_NTVPLUS, "ntvplus"},
    {SERVICE_PROFILE_SUNDIRECT, "sundirect"},
    {SERVICE_PROFILE_DIGI, "digi"},
    {SERVICE_PROFILE_MTS_SAT, "mts-sat"},
    {SERVICE_PROFILE_NAGVEXOP1, "nagvexop1"},
    {SERVICE_PROFILE_NAGVEXOP2, "nagvexop2"},
    {SERVICE_PROFILE_NAGVEXOP3, "nagvexop3"},
    {SERVICE_PROFILE_NAGVEXOP4, "nagvexop4"},
    {SERVICE_PROFILE_DISHTV, "dishtv"},
    {SERVICE_PROFILE_DIVEO, "diveo"},
    {SERVICE_PROFILE_SIMPLITV, "simplitv"},
    {SERVICE_PROFILE_ALMA_SAT, "alma-sat"},
    {SERVICE_PROFILE_TKGS, "tkgs"},
    {SERVICE_PROFILE_BULGARIA_A1, "bulgaria_a1"},
    {SERVICE_PROFILE_JAPAN_BS, "japan-bs"},
    {SERVICE_PROFILE_JAPAN_CS, "japan-cs"},
    {SERVICE_PROFILE_FREESAT_M7, "freesat-m7"},
    {SERVICE_PROFILE_UPCDIRECT, "upcdirect"},
    {SERVICE_PROFILE_FOCUSSAT, "focussat"},
    {SERVICE_PROFILE_SLOVAK_TELEKOM, "slovak-telekom"},
    {SERVICE_PROFILE_DIGI_SLOVAKIA, "digi-slovakia"},
    {SERVICE_PROFILE_T_MOBILE_CZ, "t-mobile-cz"},
    {SERVICE_PROFILE_TELLY_CZ, "telly-cz"},
    {SERVICE_PROFILE_OSTERREICHLISTE, "Osterreichliste"},
    {SERVICE_PROFILE_PROSIEBEN, "Prosieben"},
};

constexpr Text BROADCAST_TYPES[] = {{-2, "auto"}, {-1, "und"}, {0, "air"}, {1, "cbl"}, {2, "sat"}};

constexpr Text CHANNEL_TYPES[] = {{1, "atv"},  {2, "dtv"},   {3, "catv"},
                                  {4, "cdtv"}, {7, "sdtv"},  {8, "media"},
                                  {9, "virt"}, {10, "iptv"}, {11, "hotel-ext"}};

template <std::size_t SIZE>
const char* TextOf(const Text (&texts)[SIZE], long long value)
{
    const Text* const found =
        std::find_if(std::begin(texts), std::end(texts),
                     [value](const Text& text) { return text.value == value; });
    return found != std::end(texts) ? found->text : INVALID;
}

const char* ChannelType(unsigned int value)
{
    return TextOf(CHANNEL_TYPES, value);
}

constexpr unsigned long long INVALID_SERVICE_ID = ~0ULL;
constexpr unsigned int DIRECT_TUNE_MARK = 0xFA;

/// The @p width bits of @p value from bit @p low on.
unsigned int Bits(unsigned long long value, unsigned int low, unsigned int width)
{
    return static_cast<unsigned int>((value >> low) & ((1ULL << width) - 1));
}

/// Three minor numbers are reserved and stand for values of 16 bits.
unsigned int ShownMinor(unsigned int minor)
{
    constexpr unsigned int FIRST_RESERVED = 1020;
    constexpr unsigned int LAST_RESERVED = 1022;
    constexpr unsigned int FIRST_SHOWN = 65532;
    return minor >= FIRST_RESERVED && minor <= LAST_RESERVED ? minor - FIRST_RESERVED + FIRST_SHOWN
                                                             : minor;
}

} // namespace

std::string TCZorServiceDebug::ToString(const ZORHandle& handle)
{
    char text[20];
    snprintf(text, sizeof(text), "%d-%d", handle.first, handle.second);
    return text;
}

std::string TCZorServiceDebug::ToString(const TSTvMode& mode)
{
    char text[30];
    snprintf(text, sizeof(text), "%s-%s", TextOf(BROADCAST_TYPES, mode.broadcastType),
             m_ToString(mode.serviceMode).c_str());
    return text;
}

std::string TCZorServiceDebug::ToString(const unsigned long long& serviceId)
{
    if (serviceId == INVALID_SERVICE_ID) {
        return "INVALID_SERVICE_ID";
    }
    char text[100];
    if (Bits(serviceId, 56, 8) == DIRECT_TUNE_MARK) { // before the full layout, which it looks like
        snprintf(text, sizeof(text), "0x%llX (dirTune)(cT:%s,cN:%d)", serviceId,
                 ChannelType(Bits(serviceId, 16, 16)), static_cast<int>(Bits(serviceId, 0, 16)));
    } else if (Bits(serviceId, 60, 4) != 0) {
        const auto profile = static_cast<EServiceProfile>(Bits(serviceId, 39, 6));
        snprintf(text, sizeof(text), "0x%llX (cT:%s,sP:%s,cN:%d,mj:%d,mn:%d,pN:%d)", serviceId,
                 ChannelType(Bits(serviceId, 60, 4)), m_ToString(profile).c_str(),
                 static_cast<int>(Bits(serviceId, 45, 15)),
                 static_cast<int>(Bits(serviceId, 10, 13)),
                 static_cast<int>(ShownMinor(Bits(serviceId, 0, 10))),
                 static_cast<int>(Bits(serviceId, 23, 16)));
    } else {
        const auto profile = static_cast<EServiceProfile>(Bits(serviceId, 0, 6));
        snprintf(text, sizeof(text), "0x%llX (defSrv)(cT:%s,sP:%s,cN:%d)", serviceId,
                 ChannelType(Bits(serviceId, 21, 4)), m_ToString(profile).c_str(),
                 static_cast<int>(Bits(serviceId, 6, 15)));
    }
    return text;
}

std::string TCZorServiceDebug::m_ToString(EServiceMode mode)
{
    return TextOf(MODES, mode);
}

std::string TCZorServiceDebug::m_ToString(EServiceProfile profile)
{
    return TextOf(PROFILES, profile);
}

TCCallbackNameSetter::TCCallbackNameSetter(const std::string& name)
{
    TCDebugPrintZOR::GetInstance()->SetCallbackName(name);
}

TCCallbackNameSetter::~TCCallbackNameSetter()
{
    TCDebugPrintZOR::GetInstance()->SetCallbackName(std::string());
}
