#include "LogText.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

namespace {

std::string Ours(std::size_t size, const char* fmt, va_list* args)
{
    std::vector<char> text(size + 1, '#');
    errno = ENOENT; // for %m
    FormatLogText(text.data(), size, fmt, args);
    EXPECT_EQ('#', text[size]) << "written past the buffer";
    return text.data();
}

std::string Theirs(std::size_t size, const char* fmt, va_list* args)
{
    std::vector<char> text(size + 1, '#');
    errno = ENOENT;
    EXPECT_GE(vsnprintf(text.data(), size, fmt, *args), 0);
    return text.data();
}

/// Formats in buffers of every size up to one that holds all, and compares with the C library.
__attribute__((format(printf, 1, 2))) void ExpectTheSame(const char* fmt, ...)
{
    constexpr std::size_t LARGEST = 120;
    for (std::size_t size = 1; size <= LARGEST; ++size) {
        va_list ours;
        va_start(ours, fmt);
        va_list theirs;
        va_copy(theirs, ours);
        EXPECT_EQ(Theirs(size, fmt, &theirs), Ours(size, fmt, &ours))
            << fmt << " in " << size << " bytes";
        va_end(theirs);
        va_end(ours);
    }
}

TEST(LogTextTest, TextWithoutConversionsIsCopied)
{
    ExpectTheSame("Timer paused!");
    ExpectTheSame("%s", "");
}

TEST(LogTextTest, DecimalIntegersOfEveryWidthAreWritten)
{
    ExpectTheSame("%d %i", 0, -1);
    ExpectTheSame("[%d]", std::numeric_limits<int>::min());
    ExpectTheSame("[%d]", std::numeric_limits<int>::max());
    ExpectTheSame("[%u]", std::numeric_limits<unsigned>::max());
    ExpectTheSame("[%ld]%li", std::numeric_limits<long>::min(), 7L);
    ExpectTheSame("[%lu]", std::numeric_limits<unsigned long>::max());
    ExpectTheSame("[%lld]%lli", std::numeric_limits<long long>::min(), 7LL);
    ExpectTheSame("[%llu]", std::numeric_limits<unsigned long long>::max());
    ExpectTheSame("[%zu] [%zd]", std::numeric_limits<std::size_t>::max(), ssize_t{-5});
}

TEST(LogTextTest, NarrowIntegersAreWrittenAsTheyWerePassed)
{
    ExpectTheSame("%d %u", static_cast<signed char>(-3), static_cast<std::uint16_t>(0xFFFF));
    ExpectTheSame("%d", true);
}

TEST(LogTextTest, StringsAreCopied)
{
    ExpectTheSame("%s", "text");
    ExpectTheSame("<%s|%s>", "", "two words");
    const char* volatile nothing = nullptr; // hidden from the compiler, which knows printf
    ExpectTheSame("<%s>", nothing);
}

TEST(LogTextTest, AStringIsReadOnlyAsFarAsThereIsRoom)
{
    const char unterminated[] = {'a', 'b', 'c', 'd'};
    char text[5];
    const auto format = [&](const char* fmt, ...) {
        va_list args;
        va_start(args, fmt);
        FormatLogText(text, sizeof(text), fmt, &args);
        va_end(args);
    };
    format("%s", unterminated);
    EXPECT_STREQ("abcd", text);
}

TEST(LogTextTest, ABrokenFormatKeepsWhatStandsBeforeIt)
{
    const char* const volatile broken = "%d of %u%"; // which compilers warn of
    char text[32] = "#";
    const auto format = [&](const char* fmt, ...) {
        va_list args;
        va_start(args, fmt);
        FormatLogText(text, sizeof(text), fmt, &args);
        va_end(args);
    };
    format(broken, 1, 2u);
    EXPECT_EQ(0u, std::string(text).find("1 of 2")) << text;
}

TEST(LogTextTest, APercentSignIsWritten)
{
    ExpectTheSame("%d%% of %s%%", 5, "all");
}

TEST(LogTextTest, WhateverElseIsLeftToTheCLibraryWithTheArgumentsThatAreLeft)
{
    ExpectTheSame("%s is %5d|%-5d|%05d|%+d", "padded", 1, 2, 3, 4);
    ExpectTheSame("%d %x %#X %o %c %p", 1, 2u, 3u, 4u, 'c', static_cast<void*>(nullptr));
    ExpectTheSame("%u %.2f %g %e", 1u, 2.5, 3.5, 4.5);
    ExpectTheSame("%zu [%.3s] [%*s] [%-*s]", std::size_t{1}, "abcdef", 8, "right", 8, "left");
    ExpectTheSame("%d %hhd %hd", 1, static_cast<signed char>(2), static_cast<short>(3));
    ExpectTheSame("%jd %td", std::intmax_t{4}, std::ptrdiff_t{5});
    ExpectTheSame("%s %ls", "narrow", L"wide");
    ExpectTheSame("%lx %lc %lld", 1ul, static_cast<wint_t>(L'c'), 2LL);
    const char* const volatile positions = "%2$s %1$s"; // of this and the next compilers warn
    ExpectTheSame(positions, "second", "first");
    const char* const volatile lastError = "%s: %m";
    ExpectTheSame(lastError, "file");
}

} // namespace
