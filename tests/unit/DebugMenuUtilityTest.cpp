#include "DebugMenuUtility.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <locale>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "KeyLibraryCalls.h"
#include "LoaderSeams.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zortest::Takeover;

std::vector<std::string> gLibraryCalls;

} // namespace

extern "C" void KeyLibraryCalled(const char* function, KeyComb /*combination*/,
                                 KeyCombHandler /*handler*/)
{
    gLibraryCalls.emplace_back(function);
}

extern "C" void KeyLibraryLoaded(bool loaded)
{
    gLibraryCalls.emplace_back(loaded ? "loaded" : "unloaded");
}

namespace {

class DebugMenuUtilityTest : public ::testing::Test
{
 protected:
    DebugMenuUtilityTest() : m_former(std::cout.rdbuf(m_output.rdbuf())) { gLibraryCalls.clear(); }
    ~DebugMenuUtilityTest() override { std::cout.rdbuf(m_former); }

    std::ostringstream m_output;
    std::streambuf* const m_former;
};

TEST_F(DebugMenuUtilityTest, SeparatorsAre36CharactersAndALineEnd)
{
    EXPECT_STREQ(TCDebugMenuUtility::thickLine, "====================================\n");
    EXPECT_STREQ(TCDebugMenuUtility::thinLine, "------------------------------------\n");
    EXPECT_EQ(std::string(TCDebugMenuUtility::thickLine), std::string(36, '=') + "\n");
    EXPECT_EQ(std::string(TCDebugMenuUtility::thinLine), std::string(36, '-') + "\n");
}

TEST_F(DebugMenuUtilityTest, LibraryIsLoadedForOneCallOfTheFunction)
{
    TCDebugMenuUtility::OpenLibrary(KEY_LIBRARY, "OtherInitialize");
    EXPECT_THAT(gLibraryCalls, ElementsAre("loaded", "OtherInitialize", "unloaded"));
    EXPECT_EQ(m_output.str(), "");
}

TEST_F(DebugMenuUtilityTest, LibraryIsLoadedWithAllItsSymbolsBound)
{
    std::vector<std::pair<std::string, int>> opened;
    const Takeover takeover(zortest::dlopenSeam, [&opened](const char* file, int mode) {
        opened.emplace_back(file, mode);
        return zortest::dlopenSeam.Real(file, mode);
    });
    TCDebugMenuUtility::OpenLibrary(KEY_LIBRARY, "OtherInitialize");
    EXPECT_THAT(opened, ElementsAre(std::pair<std::string, int>(KEY_LIBRARY, RTLD_NOW)));
}

TEST_F(DebugMenuUtilityTest, MissingLibraryIsToldOnStandardOutput)
{
    int closes = 0;
    const Takeover takeover(zortest::dlcloseSeam, [&closes](void*) { return ++closes; });
    TCDebugMenuUtility::OpenLibrary("/nonexistent/library.so", "OtherInitialize");
    EXPECT_EQ(m_output.str(), "Opening dll failed.\n");
    EXPECT_EQ(closes, 0);
    EXPECT_THAT(gLibraryCalls, IsEmpty());
}

TEST_F(DebugMenuUtilityTest, MissingFunctionIsToldOnStandardOutputAndTheLibraryUnloaded)
{
    TCDebugMenuUtility::OpenLibrary(KEY_LIBRARY, "NoSuchFunction");
    EXPECT_EQ(m_output.str(), "PTR not found.\n");
    EXPECT_THAT(gLibraryCalls, ElementsAre("loaded", "unloaded"));
}

// Numbers.

TEST_F(DebugMenuUtilityTest, DigitsAreANumber)
{
    for (const char* text : {"0", "0123", "9876543210", "00000000000000000000000000000000000001"}) {
        EXPECT_TRUE(TCDebugMenuUtility::IsNumber(text)) << text;
    }
}

TEST_F(DebugMenuUtilityTest, EmptyTextIsNoNumber)
{
    EXPECT_FALSE(TCDebugMenuUtility::IsNumber(""));
}

TEST_F(DebugMenuUtilityTest, AnyOtherCharacterMakesItNoNumber)
{
    for (const char* text :
         {"12a", "a12", "1 2", " 12", "12 ", "-1", "+1", "1.5", "0x1f", "12\n"}) {
        EXPECT_FALSE(TCDebugMenuUtility::IsNumber(text)) << text;
    }
    EXPECT_FALSE(TCDebugMenuUtility::IsNumber(std::string("12\0", 3)));
    EXPECT_FALSE(TCDebugMenuUtility::IsNumber("\xb2\xb3"));
}

/// A locale in which 'x' is the only digit.
class OddDigits : public std::ctype<char>
{
 public:
    OddDigits() : std::ctype<char>(Table()) {}

 private:
    static const mask* Table()
    {
        static mask table[table_size] = {};
        table[static_cast<unsigned char>('x')] = digit;
        return table;
    }
};

TEST_F(DebugMenuUtilityTest, DigitsAreTheGlobalLocales)
{
    const std::locale former = std::locale::global(std::locale(std::locale(), new OddDigits));
    const bool letters = TCDebugMenuUtility::IsNumber("xx");
    const bool digits = TCDebugMenuUtility::IsNumber("12");
    std::locale::global(former);
    EXPECT_TRUE(letters);
    EXPECT_FALSE(digits);
}

} // namespace
