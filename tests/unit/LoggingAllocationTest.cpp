#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <string>

#include "TCDebugPrint.h"
#include "ZorServiceDebugOverlay.h"
#include "dlog.h"

// Every way to memory is watched here: malloc and its kin, which the operators stand on too. With a
// sanitizer the allocator is the sanitizer's, which offers a hook instead.

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZOR_SANITIZED_ALLOCATOR
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZOR_SANITIZED_ALLOCATOR
#endif

namespace {

thread_local bool tCounting = false;
std::atomic<unsigned long> gAllocations{0};
std::atomic<unsigned long> gEntries{0};

void Count()
{
    if (tCounting) {
        ++gAllocations;
    }
}

} // namespace

#ifdef ZOR_SANITIZED_ALLOCATOR

extern "C" {

void __sanitizer_malloc_hook(const volatile void*, size_t)
{
    Count();
}

void __sanitizer_free_hook(const volatile void*) {}
}

#else

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size)
{
    Count();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    Count();
    return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size)
{
    Count();
    return __libc_realloc(block, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    Count();
    return __libc_memalign(alignment, size);
}

void* memalign(size_t alignment, size_t size)
{
    Count();
    return __libc_memalign(alignment, size);
}
}

#endif

/// The platform log of this program only counts.
extern "C" int __dlog_print(log_id_t, int, const char*, const char*, ...)
{
    ++gEntries;
    return 0;
}

namespace {

constexpr int CALLS = 2000;

/// Longer than what a string keeps in itself.
constexpr char LONG_TAG[] = "ZOR_TIME_CHMS_REMOVEALL_AND_A_GOOD_DEAL_MORE";

class LoggingAllocationTest : public ::testing::TestWithParam<IZORLogger* (*)()>
{
 protected:
    LoggingAllocationTest()
    {
        ZORLogs::getInstance()->SetLoggingSystem(GetParam()());
        LogAll(1); // what a thread and a tag need once
        gAllocations = 0;
        gEntries = 0;
    }

    ~LoggingAllocationTest() override
    {
        TCDebugPrintZOR::GetInstance()->SetAppName(nullptr);
        ZORLogs::getInstance()->SetLoggingSystem(ZORLoggerDLOG::Instance());
    }

    static void LogAll(int calls)
    {
        for (int i = 0; i < calls; ++i) {
            ZOR_LOG(i % 2 == 0, DLOG_INFO, "call %d %s %.2f", i, "text", 1.5);
            ZOR_LOG_TAGGED("ZOR_TIME_CHMS_REMOVEALL", false, DLOG_DEBUG, "call %d", i);
            ZOR_LOG_TAGGED(LONG_TAG, false, DLOG_FATAL, "%800d", i);
        }
    }

    static unsigned long AllocationsOf(int calls)
    {
        tCounting = true;
        LogAll(calls);
        tCounting = false;
        return gAllocations;
    }
};

TEST_P(LoggingAllocationTest, LoggingAllocatesNothing)
{
    EXPECT_EQ(AllocationsOf(CALLS), 0u);
    EXPECT_EQ(gEntries, 3u * CALLS);
}

TEST_P(LoggingAllocationTest, LoggingForAnApplicationAllocatesNothing)
{
    TCDebugPrintZOR::GetInstance()->SetAppData("an application with a rather long name", -7);
    EXPECT_EQ(AllocationsOf(CALLS), 0u);
    EXPECT_EQ(gEntries, 3u * CALLS);
}

TEST_P(LoggingAllocationTest, AllocationsAreSeenAtAll)
{
    tCounting = true;
    void* volatile block = malloc(100);
    free(block);
    std::string* volatile text = new std::string(100, 'x');
    delete text;
    tCounting = false;
    EXPECT_GE(gAllocations, 3u);
}

IZORLogger* Dlog()
{
    return ZORLoggerDLOG::Instance();
}

IZORLogger* Dlog2023()
{
    return ZORLoggerDLOG2023::Instance();
}

IZORLogger* Legacy()
{
    return ZORLoggerLegacy::Instance();
}

const char* const NAMES[] = {"Dlog", "Dlog2023", "Legacy"};

INSTANTIATE_TEST_SUITE_P(Loggers, LoggingAllocationTest,
                         ::testing::Values(&Dlog, &Dlog2023, &Legacy),
                         [](const auto& info) { return NAMES[info.index]; });

} // namespace
