#include <mutex>
#include <stdexcept>

#include "Immortal.h"
#include "ZorServiceDebugOverlay.h"

namespace {

zor::Immortal<const std::string> legacyId("ZOR Legacy logger");
zor::Immortal<ZORLoggerLegacy::LevelMapping> levelMapping;
zor::Immortal<ZORLoggerLegacy::ModuleMapping> moduleMapping;

ZORLoggerLegacy::LevelMapping MakeLevelMapping()
{
    return {{DLOG_UNKNOWN, DEBUG_LEVEL_7}, {DLOG_DEFAULT, DEBUG_LEVEL_4},
            {DLOG_VERBOSE, DEBUG_LEVEL_5}, {DLOG_DEBUG, DEBUG_LEVEL_5},
            {DLOG_INFO, DEBUG_LEVEL_4},    {DLOG_WARN, DEBUG_LEVEL_3},
            {DLOG_ERROR, DEBUG_LEVEL_2},   {DLOG_FATAL, DEBUG_LEVEL_1},
            {DLOG_SILENT, DEBUG_LEVEL_0},  {static_cast<log_priority>(9), DEBUG_LEVEL_7}};
}

/// Numbers 32 to 49 are not in use, and two tags share 50.
ZORLoggerLegacy::ModuleMapping MakeModuleMapping()
{
    // GCOVR_EXCL_START: on these lines lies only the clean-up after an exception
    return {{"ZOR_API", 0},
            {"ZOR_APINATIVE", 1},
            {"ZOR_CI", 2},
            {"ZOR_CHMS", 3},
            {"ZOR_ISS_STORAGE", 4},
            {"ZOR_DBMS", 5},
            {"ZOR_DSM", 6},
            {"ZOR_EMS", 7},
            {"ZOR_GUIDE", 8},
            {"ZOR_ISS", 9},
            {"ZOR_FACTORY", 10},
            {"ZOR_PARSER", 11},
            {"ZOR_QUERY", 12},
            {"ZOR_SCAN", 13},
            {"ZOR_SI", 14},
            {"ZOR_SOSPEC", 15},
            {"ZOR_UDM", 16},
            {"ZOR_UTIL", 17},
            {"ZOR_TIME", 18},
            {"ZOR_TPMS", 19},
            {"ZOR_PVR", 20},
            {"ZOR_MAINLOOP", 21},
            {"ZOR_SECTION", 22},
            {"ZOR_ICS", 23},
            {"ZOR_EWBS", 24},
            {"ZOR_CONFIG", 25},
            {"ZOR_HT", 26},
            {"ZOR_AV", 27},
            {"ZOR_CORE", 28},
            {"TV_PLAYER", 29},
            {"TV_PLP", 30},
            {"ZOR_NRT", 31},
            {"ZOR_TIME_BEGIN", 50},
            {"ZOR_TIME_BOOT", 50},
            {"ZOR_TIME_CHANNEL", 51},
            {"ZOR_TIME_CHMS_BOOT", 52},
            {"ZOR_TIME_CHMS_FINDSRV", 53},
            {"ZOR_TIME_CHMS_REMOVEALL", 54},
            {"ZOR_TIME_CHMS_RESET", 55},
            {"ZOR_TIME_CHMS_REORDER", 56},
            {"ZOR_TIME_CHMS_LOAD", 57},
            {"ZOR_TIMESTAMP", 58},
            // GCOVR_EXCL_STOP
            {"ZOR_STDOUT", 59}};
}

/// The value for @p key, which enters @p table with the value 0 if it is not there. Entries that
/// are there, as all but the first of a kind are, are found under the shared lock and without a key
/// of their own, so that logging allocates nothing.
template <typename Table, typename Key>
typename Table::mapped_type LookUp(Table* table, std::shared_mutex* mutex, const Key& key)
{
    {
        std::shared_lock<std::shared_mutex> lock(*mutex);
        const auto entry = table->find(key);
        if (entry != table->end()) {
            return entry->second;
        }
    }
    std::unique_lock<std::shared_mutex> lock(*mutex);
    return table->try_emplace(typename Table::key_type(key)).first->second;
}

} // namespace

const std::string& ZORLoggerLegacy::m_id = legacyId.object;
ZORLoggerLegacy::LevelMapping& ZORLoggerLegacy::m_levelMapping = levelMapping.object;
ZORLoggerLegacy::ModuleMapping& ZORLoggerLegacy::m_moduleMapping = moduleMapping.object;

ZORLoggerLegacy* ZORLoggerLegacy::Instance()
{
    static zor::Immortal<ZORLoggerLegacy> instance;
    // Where memory is short the next call tries again. No std::call_once: an exception in it hangs
    // under the thread sanitizer.
    [[maybe_unused]] static const bool filled = [] {
        if (m_levelMapping.empty()) {
            m_levelMapping = MakeLevelMapping();
        }
        if (m_moduleMapping.empty()) {
            m_moduleMapping = MakeModuleMapping();
        }
        return true;
    }();
    return &instance.object;
}

void ZORLoggerLegacy::ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                             const char* prettyFunction, const char* function, int scope,
                             int classBegin, int classEnd, int functionBegin, int functionEnd,
                             int line, const char* fmt, va_list* args)
{
    const EDebugLevel level = LookUp(&m_levelMapping, &m_mappingMutex, priority);
    if (tag == nullptr) {
        throw std::logic_error("basic_string: construction from null is not valid");
    }
    const int module = LookUp(&m_moduleMapping, &m_mappingMutex, std::string_view(tag));
    TCDebugPrintZOR::GetInstance()->PrintVALIST(flag, file, prettyFunction, function, scope,
                                                classBegin, classEnd, functionBegin, functionEnd,
                                                line, module, level, fmt, args);
}

const std::string& ZORLoggerLegacy::GetLoggerId() const
{
    return m_id;
}
