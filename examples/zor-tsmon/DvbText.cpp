#include "DvbText.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace tsmon {

namespace {

/// A character table as iconv knows it.
struct Encoding
{
    const char* name;
    std::size_t unitSize;         ///< bytes that are given up together when they mean nothing
    bool twoByteControls = false; ///< 0xE080 to 0xE09F are control codes, unknown to iconv
};

constexpr Encoding DEFAULT_LATIN = {"ISO_6937", 1};
constexpr Encoding UNKNOWN = {"ASCII", 1};

/// By the number of the part of ISO 8859; there is no part 0, and part 12 was never published.
constexpr std::array<Encoding, 16> ISO_8859 = {{
    UNKNOWN,
    {"ISO-8859-1", 1},
    {"ISO-8859-2", 1},
    {"ISO-8859-3", 1},
    {"ISO-8859-4", 1},
    {"ISO-8859-5", 1},
    {"ISO-8859-6", 1},
    {"ISO-8859-7", 1},
    {"ISO-8859-8", 1},
    {"ISO-8859-9", 1},
    {"ISO-8859-10", 1},
    {"ISO-8859-11", 1},
    UNKNOWN,
    {"ISO-8859-13", 1},
    {"ISO-8859-14", 1},
    {"ISO-8859-15", 1},
}};

constexpr wchar_t EURO = 0x20AC;
constexpr wchar_t NEW_LINE = 0x8A;
constexpr wchar_t REPLACEMENT = 0xFFFD;

std::uint8_t ByteAt(std::string_view bytes, std::size_t index)
{
    return static_cast<std::uint8_t>(bytes[index]);
}

/// ISO 8859 by number: the selector 0x10 is followed by the number of the part in two bytes.
Encoding NumberedIso8859(std::string_view bytes)
{
    const bool known =
        bytes.size() >= 3 && ByteAt(bytes, 1) == 0 && ByteAt(bytes, 2) < ISO_8859.size();
    return known ? ISO_8859[ByteAt(bytes, 2)] : UNKNOWN;
}

Encoding SelectedEncoding(std::string_view bytes)
{
    const std::uint8_t selector = ByteAt(bytes, 0);
    if (selector >= 0x01 && selector <= 0x0B) {
        return ISO_8859[selector + 4U];
    }
    switch (selector) {
        case 0x10:
            return NumberedIso8859(bytes);
        case 0x11:
            return {"UCS-2BE", 2};
        case 0x12:
            return {"EUC-KR", 1, true};
        case 0x13:
            return {"GB2312", 1, true};
        case 0x14:
            return {"BIG5", 1, true};
        case 0x15:
            return {"UTF-8", 1};
        default:
            return selector < 0x20 ? UNKNOWN : DEFAULT_LATIN;
    }
}

/// The bytes in front of the characters. The selector of an unknown table is left in its place, to
/// be replaced like every control character without a meaning.
std::size_t SelectorSize(std::string_view bytes, const Encoding& encoding)
{
    if (encoding.name == DEFAULT_LATIN.name || encoding.name == UNKNOWN.name) {
        return 0;
    }
    return ByteAt(bytes, 0) == 0x10 ? 3 : 1;
}

bool IsOpen(iconv_t handle)
{
    return reinterpret_cast<std::intptr_t>(handle) != -1;
}

/// A small system may have converters for a few tables only.
bool IsAvailable(const Encoding& encoding)
{
    iconv_t handle = iconv_open("WCHAR_T", encoding.name);
    return IsOpen(handle) && iconv_close(handle) == 0;
}

/// One converter of the system's, closed at the end of its scope.
class Converter
{
 public:
    Converter(const char* to, const char* from) : m_handle(iconv_open(to, from))
    {
        if (!IsOpen(m_handle)) {
            throw std::system_error(errno, std::generic_category(),
                                    std::string("no conversion from ") + from + " to " + to);
        }
    }

    ~Converter() { iconv_close(m_handle); }

    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    /// Appends what @p input says to @p output, up to its end or to the first byte that means
    /// nothing, and takes what it has used off @p input.
    template <class Character>
    void Convert(std::string_view& input, std::basic_string<Character>& output)
    {
        std::array<Character, 64> buffer{};
        std::size_t result = 0;
        do {
            char* from = const_cast<char*>(input.data()); // iconv() only reads through it
            std::size_t fromSize = input.size();
            char* to = reinterpret_cast<char*>(buffer.data());
            std::size_t toSize = buffer.size() * sizeof(Character);
            result = iconv(m_handle, &from, &fromSize, &to, &toSize);
            output.append(buffer.data(), buffer.size() - toSize / sizeof(Character));
            input.remove_prefix(input.size() - fromSize);
        } while (result == static_cast<std::size_t>(-1) && errno == E2BIG);
    }

 private:
    iconv_t m_handle;
};

/// Takes what the converter does not know off the front of @p bytes and returns what stands for it.
wchar_t TakeUnconvertible(std::string_view& bytes, const Encoding& encoding)
{
    const std::uint8_t first = ByteAt(bytes, 0);
    const std::uint8_t second = bytes.size() > 1 ? ByteAt(bytes, 1) : 0;
    if (encoding.name == DEFAULT_LATIN.name && first == 0xA4) {
        // DVB's one change to ISO 6937.
        bytes.remove_prefix(1);
        return EURO;
    }
    if (encoding.twoByteControls && first == 0xE0 && second >= 0x80 && second <= 0x9F) {
        bytes.remove_prefix(2);
        return second;
    }
    bytes.remove_prefix(std::min(encoding.unitSize, bytes.size()));
    return REPLACEMENT;
}

std::wstring ToWide(std::string_view bytes, const Encoding& encoding)
{
    std::wstring text;
    Converter converter("WCHAR_T", encoding.name);
    converter.Convert(bytes, text);
    while (!bytes.empty()) {
        text.push_back(TakeUnconvertible(bytes, encoding));
        converter.Convert(bytes, text);
    }
    return text;
}

/// Replaces and removes what must not reach a terminal or a line of a table.
std::wstring WithoutControls(const std::wstring& text)
{
    std::wstring result;
    for (const wchar_t character : text) {
        const bool isPrivateControl = character >= 0xE080 && character <= 0xE09F;
        const wchar_t control = isPrivateControl ? character - 0xE000 : character;
        if (control == NEW_LINE) {
            result.push_back(L' ');
        } else if (control < 0x20 || control == 0x7F) {
            result.push_back(REPLACEMENT);
        } else if (control < 0x80 || control > 0x9F) {
            result.push_back(character);
        }
    }
    return result;
}

std::string ToUtf8(const std::wstring& text)
{
    std::string result;
    Converter converter("UTF-8", "WCHAR_T");
    std::string_view bytes(reinterpret_cast<const char*>(text.data()),
                           text.size() * sizeof(wchar_t));
    converter.Convert(bytes, result);
    return result;
}

} // namespace

std::string DecodeDvbText(std::string_view bytes)
{
    if (bytes.empty()) {
        return {};
    }
    const Encoding selected = SelectedEncoding(bytes);
    const Encoding& encoding = IsAvailable(selected) ? selected : UNKNOWN;
    bytes.remove_prefix(SelectorSize(bytes, encoding));
    return ToUtf8(WithoutControls(ToWide(bytes, encoding)));
}

} // namespace tsmon
