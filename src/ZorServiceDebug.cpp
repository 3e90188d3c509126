#include "ZorServiceDebug.h"

#include <cstddef>
#include <cstdio>

#include "TCDebugPrint.h"

namespace {

constexpr char INVALID[] = "inv";

/// Texts by value, from the first value that has one. The two tables differ in names and in order,
/// and are kept apart.
constexpr int FIRST_MODE = -2;
constexpr const char* MODES[] = {
    "auto",           "unknown",       "atsc",        "dvb",       "isdb",
    "fsat",           "candig",        "tivu",        "cdtvv",     "astra",
    "digplus",        "dsmart",        "digiturk",    "fransat",   "freeview",
    "ncplus",         "nnk",           "skylink",     "airtel",    "hdaustria",
    "otau",           "ciop1",         "ciop2",       "dvbnt",     INVALID,
    "polsat",         "ntvplus",       "telekarta",   "tricolor",  "sundirect",
    "digi",           "mts-sat",       "nagvexop1",   "nagvexop2", "nagvexop3",
    "nagvexop4",      "dishtv",        INVALID,       INVALID,     "diveo",
    "simplitv",       "alma-sat",      "tkgs",        "mychannel", "bulgaria_a1",
    "japan-bs",       "japan-cs",      "freesat_m7",  "upcdirect", "focussat",
    "slovak_telekom", "digi_slovakia", "t_mobile_cz", "telly_cz",  "Osterreichliste",
    "Prosieben"};

constexpr int FIRST_PROFILE = -1;
constexpr const char* PROFILES[] = {"unknown",
                                    "atsc",
                                    "isdb",
                                    "dvb",
                                    "fsat",
                                    "candig",
                                    "tive",
                                    "cdtvv",
                                    "astra",
                                    "digplus",
                                    "dsmart",
                                    "digiturk",
                                    "fransat",
                                    "freeview",
                                    "ncplus",
                                    "nnk",
                                    "skylink",
                                    "airtel",
                                    "hdaustria",
                                    "otau",
                                    "ciop1",
                                    "ciop2",
                                    "dvbnt",
                                    INVALID,
                                    "stb",
                                    "polsat",
                                    "tricolor",
                                    "telekarta",
                                    "ntvplus",
                                    "sundirect",
                                    "digi",
                                    "mts-sat",
                                    "nagvexop1",
                                    "nagvexop2",
                                    "nagvexop3",
                                    "nagvexop4",
                                    "dishtv",
                                    INVALID,
                                    INVALID,
                                    INVALID,
                                    "diveo",
                                    "simplitv",
                                    "alma-sat",
                                    "tkgs",
                                    "bulgaria_a1",
                                    "japan-bs",
                                    "japan-cs",
                                    "freesat-m7",
                                    "upcdirect",
                                    "focussat",
                                    "slovak-telekom",
                                    "digi-slovakia",
                                    "t-mobile-cz",
                                    "telly-cz",
                                    "Osterreichliste",
                                    "Prosieben"};

constexpr int FIRST_BROADCAST_TYPE = -2;
constexpr const char* BROADCAST_TYPES[] = {"auto", "und", "air", "cbl", "sat"};

constexpr const char* CHANNEL_TYPES[] = {INVALID, "atv",  "dtv",   "catv", "cdtv", INVALID,
                                         INVALID, "sdtv", "media", "virt", "iptv", "hotel-ext"};

template <std::size_t SIZE>
const char* TextOf(const char* const (&texts)[SIZE], long long first, long long value)
{
    const long long index = value - first;
    return index >= 0 && index < static_cast<long long>(SIZE) ? texts[index] : INVALID;
}

const char* ChannelType(unsigned int value)
{
    return TextOf(CHANNEL_TYPES, 0, value);
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
    snprintf(text, sizeof(text), "%s-%s",
             TextOf(BROADCAST_TYPES, FIRST_BROADCAST_TYPE, mode.broadcastType),
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
    return TextOf(MODES, FIRST_MODE, mode);
}

std::string TCZorServiceDebug::m_ToString(EServiceProfile profile)
{
    return TextOf(PROFILES, FIRST_PROFILE, profile);
}

TCCallbackNameSetter::TCCallbackNameSetter(const std::string& name)
{
    TCDebugPrintZOR::GetInstance()->SetCallbackName(name);
}

TCCallbackNameSetter::~TCCallbackNameSetter()
{
    TCDebugPrintZOR::GetInstance()->SetCallbackName(std::string());
}
