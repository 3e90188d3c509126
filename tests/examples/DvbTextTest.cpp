#include "DvbText.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <iconv.h>

#include <cctype>
#include <string>

namespace {

/// The table that the system has no converter for.
const char* g_missingConverter = "";

} // namespace

/// Taken over from the C library.
extern "C" iconv_t iconv_open(const char* to, const char* from)
{
    if (from == std::string(g_missingConverter)) {
        return reinterpret_cast<iconv_t>(-1);
    }
    using Function = iconv_t (*)(const char*, const char*);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "iconv_open"));
    return real(to, from);
}

namespace {

using tsmon::DecodeDvbText;
using std::string_literals::operator""s;

constexpr const char* REPLACED = "\uFFFD";

struct Sample
{
    const char* table;
    std::string bytes;
    std::string utf8;
};

std::ostream& operator<<(std::ostream& out, const Sample& sample)
{
    return out << sample.table;
}

/// The table's name as a name of a test: letters and digits only.
std::string NameOf(const testing::TestParamInfo<Sample>& info)
{
    std::string name;
    for (const char character : std::string(info.param.table)) {
        name += std::isalnum(static_cast<unsigned char>(character)) != 0 ? character : '_';
    }
    return name;
}

class DvbTextTableTest : public testing::TestWithParam<Sample>
{};

TEST_P(DvbTextTableTest, KnownBytesBecomeKnownCharacters)
{
    EXPECT_EQ(DecodeDvbText(GetParam().bytes), GetParam().utf8);
}

INSTANTIATE_TEST_SUITE_P(
    EveryTable, DvbTextTableTest,
    testing::Values(Sample{"default, ASCII", "North News", "North News"},
                    Sample{"default, accents come first",
                           "Caf\xC2"
                           "e \xC8uber \xCF\x43",
                           "Café über Č"},
                    Sample{"default, single characters", "\xA1\xAA\xD0\xE1\xE9\xF1\xFA\xFB",
                           "¡“—ÆØæœß"},
                    Sample{"default, with the euro sign", "5 \xA4", "5 €"},
                    Sample{"0x01, ISO 8859-5", "\x01\xBD\xDE\xD2\xDE\xE1\xE2\xD8", "Новости"},
                    Sample{"0x02, ISO 8859-6", "\x02\xE3\xE4", "كل"},
                    Sample{"0x03, ISO 8859-7", "\x03\xC5\xD1\xD4", "ΕΡΤ"},
                    Sample{"0x04, ISO 8859-8", "\x04\xF9\xEC\xE5\xED", "שלום"},
                    Sample{"0x05, ISO 8859-9", "\x05\xDD\xFE\xF0", "İşğ"},
                    Sample{"0x06, ISO 8859-10", "\x06\xA1\xAA\xBF", "ĄŠŋ"},
                    Sample{"0x07, ISO 8859-11", "\x07\xE4\xB7\xC2", "ไทย"},
                    Sample{"0x09, ISO 8859-13", "\x09\xD0\xE8\xFE", "Ščž"},
                    Sample{"0x0A, ISO 8859-14", "\x0A\xD0\xDE", "ŴŶ"},
                    Sample{"0x0B, ISO 8859-15", "\x0B\xA4\xA6\xBD", "€Šœ"},
                    Sample{"0x10 00 01, ISO 8859-1", "\x10\x00\x01\xE9\xA4"s, "é¤"},
                    Sample{"0x10 00 02, ISO 8859-2", "\x10\x00\x02\xB1\xB3"s, "ął"},
                    Sample{"0x10 00 03, ISO 8859-3", "\x10\x00\x03\xA1\xFD"s, "Ħŭ"},
                    Sample{"0x10 00 04, ISO 8859-4", "\x10\x00\x04\xA1\xB3"s, "Ąŗ"},
                    Sample{"0x10 00 05, ISO 8859-5", "\x10\x00\x05\xB6"s, "Ж"},
                    Sample{"0x10 00 06, ISO 8859-6", "\x10\x00\x06\xC7"s, "ا"},
                    Sample{"0x10 00 07, ISO 8859-7", "\x10\x00\x07\xD9"s, "Ω"},
                    Sample{"0x10 00 08, ISO 8859-8", "\x10\x00\x08\xE0"s, "א"},
                    Sample{"0x10 00 09, ISO 8859-9", "\x10\x00\x09\xFD"s, "ı"},
                    Sample{"0x10 00 0A, ISO 8859-10", "\x10\x00\x0A\xBF"s, "ŋ"},
                    Sample{"0x10 00 0B, ISO 8859-11", "\x10\x00\x0B\xA1"s, "ก"},
                    Sample{"0x10 00 0D, ISO 8859-13", "\x10\x00\x0D\xC0"s, "Ą"},
                    Sample{"0x10 00 0E, ISO 8859-14", "\x10\x00\x0E\xA1"s, "Ḃ"},
                    Sample{"0x10 00 0F, ISO 8859-15", "\x10\x00\x0F\xA4"s, "€"},
                    Sample{"0x11, UCS-2", "\x11\x65\xB0\x80\x5E\x00!"s, "新聞!"},
                    Sample{"0x12, Korean", "\x12\xB4\xBA\xBD\xBA 1", "뉴스 1"},
                    Sample{"0x13, simplified Chinese", "\x13\xD0\xC2\xCE\xC5", "新闻"},
                    Sample{"0x14, traditional Chinese", "\x14\xB7\x73\xBB\x44", "新聞"},
                    Sample{"0x15, UTF-8", "\x15Новости 新聞", "Новости 新聞"}),
    NameOf);

TEST(DvbTextTest, EmptyTextIsEmpty)
{
    EXPECT_EQ(DecodeDvbText(""), "");
}

TEST(DvbTextTest, SelectorAloneIsEmpty)
{
    for (const char selector : {'\x01', '\x0B', '\x11', '\x12', '\x13', '\x14', '\x15'}) {
        EXPECT_EQ(DecodeDvbText(std::string(1, selector)), "");
    }
    EXPECT_EQ(DecodeDvbText("\x10\x00\x02"s), "");
}

TEST(DvbTextTest, EmphasisIsLeftOutAndNewLineIsASpace)
{
    EXPECT_EQ(DecodeDvbText("\x86North\x87\x8ANews"), "North News");
    EXPECT_EQ(DecodeDvbText("\x05\x86North\x87\x8ANews"), "North News");
    EXPECT_EQ(DecodeDvbText("\x11\xE0\x86\x00N\xE0\x87\xE0\x8A\x00T"s), "N T");
    EXPECT_EQ(DecodeDvbText("\x15\uE086North\uE087\uE08ANews"), "North News");
}

TEST(DvbTextTest, EmphasisIsLeftOutOfTwoByteTables)
{
    EXPECT_EQ(DecodeDvbText("\x12\xE0\x86\xB4\xBA\xE0\x87\xE0\x8A\xBD\xBA"), "뉴 스");
    EXPECT_EQ(DecodeDvbText("\x13\xE0\x86\xD0\xC2\xE0\x8A\xCE\xC5"), "新 闻");
    EXPECT_EQ(DecodeDvbText("\x14\xE0\x86\xB7\x73\xE0\x8A\xBB\x44"), "新 聞");
}

TEST(DvbTextTest, OtherControlCodesOfTheBroadcastAreLeftOut)
{
    EXPECT_EQ(DecodeDvbText("A\x80\x85\x88\x9F"
                            "B"),
              "AB");
}

TEST(DvbTextTest, TerminalControlsAreReplaced)
{
    EXPECT_EQ(DecodeDvbText("A\x1B[31m\n\x7F"), "A"s + REPLACED + "[31m" + REPLACED + REPLACED);
    EXPECT_EQ(DecodeDvbText("A\x00"s), "A"s + REPLACED);
}

TEST(DvbTextTest, BytesWithoutAMeaningAreReplacedOneByOne)
{
    EXPECT_EQ(DecodeDvbText("a\xA6"
                            "b"),
              "a"s + REPLACED + "b");
    EXPECT_EQ(DecodeDvbText("\x03\xAE\xAF"), REPLACED + "―"s);
    EXPECT_EQ(DecodeDvbText("\x15"
                            "a\xC3("),
              "a"s + REPLACED + "(");
    EXPECT_EQ(DecodeDvbText("\x15\xED\xA0\x80"), REPLACED + ""s + REPLACED + REPLACED);
    EXPECT_EQ(DecodeDvbText("\x12\xB4("), REPLACED + "("s);
}

TEST(DvbTextTest, AccentWithoutItsLetterIsReplaced)
{
    EXPECT_EQ(DecodeDvbText("\xC2"
                            "9"),
              REPLACED + "9"s);
    EXPECT_EQ(DecodeDvbText("\xC2\xA4"), REPLACED + "€"s);
}

TEST(DvbTextTest, CharacterCutOffAtTheEndIsReplaced)
{
    EXPECT_EQ(DecodeDvbText("ab\xC2"), "ab"s + REPLACED);
    EXPECT_EQ(DecodeDvbText("\x11\x65\xB0\x80"), "新"s + REPLACED);
    EXPECT_EQ(DecodeDvbText("\x14\xB7"), REPLACED);
    EXPECT_EQ(DecodeDvbText("\x15"
                            "a\xE6\x96"),
              "a"s + REPLACED + REPLACED);
}

TEST(DvbTextTest, HalfOfASurrogatePairIsOneReplacement)
{
    EXPECT_EQ(DecodeDvbText("\x11\xD8\x00\x00"
                            "A"s),
              REPLACED + "A"s);
}

TEST(DvbTextTest, UnknownTableKeepsItsSelectorAndItsAscii)
{
    EXPECT_EQ(DecodeDvbText("\x08News\xE9"), REPLACED + "News"s + REPLACED);
    EXPECT_EQ(DecodeDvbText("\x0CNews"), REPLACED + "News"s);
    EXPECT_EQ(DecodeDvbText("\x16News"), REPLACED + "News"s);
    EXPECT_EQ(DecodeDvbText("\x1F\x02News"), REPLACED + ""s + REPLACED + "News");
    EXPECT_EQ(DecodeDvbText("\x10\x00\x0CNews"s), REPLACED + ""s + REPLACED + REPLACED + "News");
    EXPECT_EQ(DecodeDvbText("\x10\x01\x01N"s), REPLACED + ""s + REPLACED + REPLACED + "N");
    EXPECT_EQ(DecodeDvbText("\x10\x00"s), REPLACED + ""s + REPLACED);
}

TEST(DvbTextTest, TableWithoutAConverterIsLikeAnUnknownOne)
{
    g_missingConverter = "EUC-KR";
    EXPECT_EQ(DecodeDvbText("\x12\xB4\xBA 1"), REPLACED + ""s + REPLACED + REPLACED + " 1");
    g_missingConverter = "ISO_6937";
    EXPECT_EQ(DecodeDvbText("Caf\xC2\x65"), "Caf"s + REPLACED + "e");
    g_missingConverter = "";
}

TEST(DvbTextTest, EveryByteAfterEverySelectorGivesSomething)
{
    for (int selector = 0; selector < 256; ++selector) {
        for (int byte = 0x20; byte < 256; ++byte) {
            const bool control = byte >= 0x80 && byte <= 0x9F;
            std::string bytes = {static_cast<char>(selector), static_cast<char>(byte), 'x'};
            const std::string text = DecodeDvbText(bytes);
            if (!control && selector != 0x11) {
                EXPECT_GE(text.size(), 2U) << selector << " " << byte;
            } else {
                EXPECT_FALSE(text.empty()) << selector << " " << byte;
            }
        }
    }
}

TEST(DvbTextTest, LongTextsAreDecodedWhole)
{
    EXPECT_EQ(DecodeDvbText(std::string(255, 'x')), std::string(255, 'x'));
    EXPECT_EQ(DecodeDvbText("\x01" + std::string(254, '\xB6')).size(), 2 * 254U);
}

} // namespace
