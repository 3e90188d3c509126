#pragma once

#include <cstdint>
#include <string>

#include "ZorExport.h"

/// @file
/// Short readable texts of the TV service's identifiers and modes, for log messages.

/// The broadcaster's or operator's set of rules that the television works by. 22, 35 and 36 are not
/// in use. The numbering differs from that of EServiceProfile on purpose.
enum EServiceMode : int
{
    SERVICE_MODE_AUTO = -2,
    SERVICE_MODE_UNKNOWN = -1,
    SERVICE_MODE_ATSC = 0,
    SERVICE_MODE_DVB = 1,
    SERVICE_MODE_ISDB = 2,
    SERVICE_MODE_FSAT = 3,
    SERVICE_MODE_CANDIG = 4,
    SERVICE_MODE_TIVU = 5,
    SERVICE_MODE_CDTVV = 6,
    SERVICE_MODE_ASTRA = 7,
    SERVICE_MODE_DIGPLUS = 8,
    SERVICE_MODE_DSMART = 9,
    SERVICE_MODE_DIGITURK = 10,
    SERVICE_MODE_FRANSAT = 11,
    SERVICE_MODE_FREEVIEW = 12,
    SERVICE_MODE_NCPLUS = 13,
    SERVICE_MODE_NNK = 14,
    SERVICE_MODE_SKYLINK = 15,
    SERVICE_MODE_AIRTEL = 16,
    SERVICE_MODE_HDAUSTRIA = 17,
    SERVICE_MODE_OTAU = 18,
    SERVICE_MODE_CIOP1 = 19,
    SERVICE_MODE_CIOP2 = 20,
    SERVICE_MODE_DVBNT = 21,
    SERVICE_MODE_POLSAT = 23,
    SERVICE_MODE_NTVPLUS = 24,
    SERVICE_MODE_TELEKARTA = 25,
    SERVICE_MODE_TRICOLOR = 26,
    SERVICE_MODE_SUNDIRECT = 27,
    SERVICE_MODE_DIGI = 28,
    SERVICE_MODE_MTS_SAT = 29,
    SERVICE_MODE_NAGVEXOP1 = 30,
    SERVICE_MODE_NAGVEXOP2 = 31,
    SERVICE_MODE_NAGVEXOP3 = 32,
    SERVICE_MODE_NAGVEXOP4 = 33,
    SERVICE_MODE_DISHTV = 34,
    SERVICE_MODE_DIVEO = 37,
    SERVICE_MODE_SIMPLITV = 38,
    SERVICE_MODE_ALMA_SAT = 39,
    SERVICE_MODE_TKGS = 40,
    SERVICE_MODE_MYCHANNEL = 41,
    SERVICE_MODE_BULGARIA_A1 = 42,
    SERVICE_MODE_JAPAN_BS = 43,
    SERVICE_MODE_JAPAN_CS = 44,
    SERVICE_MODE_FREESAT_M7 = 45,
    SERVICE_MODE_UPCDIRECT = 46,
    SERVICE_MODE_FOCUSSAT = 47,
    SERVICE_MODE_SLOVAK_TELEKOM = 48,
    SERVICE_MODE_DIGI_SLOVAKIA = 49,
    SERVICE_MODE_T_MOBILE_CZ = 50,
    SERVICE_MODE_TELLY_CZ = 51,
    SERVICE_MODE_OSTERREICHLISTE = 52,
    SERVICE_MODE_PROSIEBEN = 53,
};

/// The set of rules that a service is received by. 22, 36, 37 and 38 are not in use. The numbering
/// differs from that of EServiceMode on purpose.
enum EServiceProfile : int
{
    SERVICE_PROFILE_UNKNOWN = -1,
    SERVICE_PROFILE_ATSC = 0,
    SERVICE_PROFILE_ISDB = 1,
    SERVICE_PROFILE_DVB = 2,
    SERVICE_PROFILE_FSAT = 3,
    SERVICE_PROFILE_CANDIG = 4,
    SERVICE_PROFILE_TIVE = 5,
    SERVICE_PROFILE_CDTVV = 6,
    SERVICE_PROFILE_ASTRA = 7,
    SERVICE_PROFILE_DIGPLUS = 8,
    SERVICE_PROFILE_DSMART = 9,
    SERVICE_PROFILE_DIGITURK = 10,
    SERVICE_PROFILE_FRANSAT = 11,
    SERVICE_PROFILE_FREEVIEW = 12,
    SERVICE_PROFILE_NCPLUS = 13,
    SERVICE_PROFILE_NNK = 14,
    SERVICE_PROFILE_SKYLINK = 15,
    SERVICE_PROFILE_AIRTEL = 16,
    SERVICE_PROFILE_HDAUSTRIA = 17,
    SERVICE_PROFILE_OTAU = 18,
    SERVICE_PROFILE_CIOP1 = 19,
    SERVICE_PROFILE_CIOP2 = 20,
    SERVICE_PROFILE_DVBNT = 21,
    SERVICE_PROFILE_STB = 23,
    SERVICE_PROFILE_POLSAT = 24,
    SERVICE_PROFILE_TRICOLOR = 25,
    SERVICE_PROFILE_TELEKARTA = 26,
    SERVICE_PROFILE_NTVPLUS = 27,
    SERVICE_PROFILE_SUNDIRECT = 28,
    SERVICE_PROFILE_DIGI = 29,
    SERVICE_PROFILE_MTS_SAT = 30,
    SERVICE_PROFILE_NAGVEXOP1 = 31,
    SERVICE_PROFILE_NAGVEXOP2 = 32,
    SERVICE_PROFILE_NAGVEXOP3 = 33,
    SERVICE_PROFILE_NAGVEXOP4 = 34,
    SERVICE_PROFILE_DISHTV = 35,
    SERVICE_PROFILE_DIVEO = 39,
    SERVICE_PROFILE_SIMPLITV = 40,
    SERVICE_PROFILE_ALMA_SAT = 41,
    SERVICE_PROFILE_TKGS = 42,
    SERVICE_PROFILE_BULGARIA_A1 = 43,
    SERVICE_PROFILE_JAPAN_BS = 44,
    SERVICE_PROFILE_JAPAN_CS = 45,
    SERVICE_PROFILE_FREESAT_M7 = 46,
    SERVICE_PROFILE_UPCDIRECT = 47,
    SERVICE_PROFILE_FOCUSSAT = 48,
    SERVICE_PROFILE_SLOVAK_TELEKOM = 49,
    SERVICE_PROFILE_DIGI_SLOVAKIA = 50,
    SERVICE_PROFILE_T_MOBILE_CZ = 51,
    SERVICE_PROFILE_TELLY_CZ = 52,
    SERVICE_PROFILE_OSTERREICHLISTE = 53,
    SERVICE_PROFILE_PROSIEBEN = 54,
};

/// A handle of two numbers.
struct ZOR_CORE_API ZORHandle
{
    std::int32_t first = 0;  ///< shown first
    std::int32_t second = 0; ///< shown behind it
};

/// How the television receives. Only the last two fields are shown.
struct ZOR_CORE_API TSTvMode
{
    std::int32_t tvServiceFields[4] = {}; ///< the TV service's own
    std::int32_t broadcastType = -1;      ///< -2 auto, -1 undefined, 0 air, 1 cable, 2 satellite
    EServiceMode serviceMode = SERVICE_MODE_UNKNOWN; ///< by whose set of rules
};

/// The texts. All functions are pure and may be called from any thread; the strings are the
/// caller's. What has no text is shown as "inv".
class ZOR_CORE_API TCZorServiceDebug
{
 public:
    /// "first-second", at most 19 characters.
    static std::string ToString(const ZORHandle& handle);

    /// "broadcast type-service mode", at most 29 characters.
    static std::string ToString(const TSTvMode& mode);

    /// The packed service id in hexadecimal and what it stands for, at most 99 characters.
    static std::string ToString(const unsigned long long& serviceId);

 private:
    static std::string m_ToString(EServiceMode mode);
    static std::string m_ToString(EServiceProfile profile);
};

/// Shows the name of the callback that the calling thread runs, for the life of this object. Make
/// it on the thread that runs the callback, around the callback.
class ZOR_CORE_API TCCallbackNameSetter
{
 public:
    /// Sets @p name, which is copied.
    explicit TCCallbackNameSetter(const std::string& name);

    /// Sets the empty name, not the one from before.
    ~TCCallbackNameSetter();

    TCCallbackNameSetter(const TCCallbackNameSetter&) = delete;
    TCCallbackNameSetter& operator=(const TCCallbackNameSetter&) = delete;
};
