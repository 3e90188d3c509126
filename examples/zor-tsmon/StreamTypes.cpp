#include "StreamTypes.h"

#include <algorithm>
#include <array>

namespace tsmon {

namespace {

struct Name
{
    std::uint8_t code;
    const char* text;
};

constexpr std::uint8_t PRIVATE_DATA_TYPE = 0x06;
constexpr std::uint8_t REGISTRATION_TAG = 0x05;
constexpr std::uint8_t LANGUAGE_TAG = 0x0A;
constexpr std::uint8_t TELETEXT_TAG = 0x56;
constexpr std::uint8_t SUBTITLES_TAG = 0x59;
constexpr std::size_t LANGUAGE_SIZE = 3;
constexpr std::size_t FORMAT_SIZE = 4;

constexpr std::array<Name, 37> TYPES = {{
    {0x01, "MPEG-1 video"},
    {0x02, "MPEG-2 video"},
    {0x03, "MPEG-1 audio"},
    {0x04, "MPEG-2 audio"},
    {0x05, "private sections"},
    {PRIVATE_DATA_TYPE, "private data"},
    {0x07, "MHEG"},
    {0x08, "DSM-CC"},
    {0x09, "auxiliary data"},
    {0x0A, "DSM-CC encapsulation"},
    {0x0B, "DSM-CC messages"},
    {0x0C, "DSM-CC descriptors"},
    {0x0D, "DSM-CC sections"},
    {0x0E, "auxiliary data"},
    {0x0F, "AAC audio"},
    {0x10, "MPEG-4 video"},
    {0x11, "AAC audio (LATM)"},
    {0x12, "MPEG-4 objects"},
    {0x13, "MPEG-4 object sections"},
    {0x14, "DSM-CC download"},
    {0x15, "metadata"},
    {0x16, "metadata sections"},
    {0x1A, "IPMP"},
    {0x1B, "H.264 video"},
    {0x1C, "MPEG-4 raw audio"},
    {0x1D, "MPEG-4 text"},
    {0x1F, "H.264 SVC video"},
    {0x20, "H.264 MVC video"},
    {0x21, "JPEG 2000 video"},
    {0x24, "H.265 video"},
    {0x2D, "MPEG-H audio"},
    {0x33, "H.266 video"},
    {0x42, "AVS video"},
    {0x81, "AC-3 audio"},
    {0x86, "splice information"},
    {0x87, "E-AC-3 audio"},
    {0xEA, "VC-1 video"},
}};

/// Descriptors that say what a stream of private data holds.
constexpr std::array<Name, 9> PRIVATE_CONTENTS = {{
    {0x45, "VBI data"},
    {0x46, "VBI teletext"},
    {TELETEXT_TAG, "teletext"},
    {SUBTITLES_TAG, "DVB subtitles"},
    {0x6A, "AC-3 audio"},
    {0x6F, "application signalling"},
    {0x7A, "E-AC-3 audio"},
    {0x7B, "DTS audio"},
    {0x7C, "AAC audio"},
}};

struct Format
{
    std::string_view identifier;
    const char* text;
};

/// Registered formats of private data.
constexpr std::array<Format, 7> FORMATS = {{
    {"AC-3", "AC-3 audio"},
    {"EAC3", "E-AC-3 audio"},
    {"DTS1", "DTS audio"},
    {"HEVC", "H.265 video"},
    {"KLVA", "KLV metadata"},
    {"Opus", "Opus audio"},
    {"VC-1", "VC-1 video"},
}};

template <std::size_t SIZE>
const char* Find(const std::array<Name, SIZE>& names, std::uint8_t code)
{
    const auto found = std::find_if(names.begin(), names.end(),
                                    [code](const Name& name) { return name.code == code; });
    return found == names.end() ? nullptr : found->text;
}

const char* FindFormat(std::string_view identifier)
{
    const auto found = std::find_if(FORMATS.begin(), FORMATS.end(), [&](const Format& format) {
        return format.identifier == identifier;
    });
    return found == FORMATS.end() ? nullptr : found->text;
}

const char* FindPrivateContents(const std::vector<Descriptor>& descriptors)
{
    for (const Descriptor& descriptor : descriptors) {
        const char* text = descriptor.tag == REGISTRATION_TAG
                               ? FindFormat(descriptor.data.substr(0, FORMAT_SIZE))
                               : Find(PRIVATE_CONTENTS, descriptor.tag);
        if (text != nullptr) {
            return text;
        }
    }
    return nullptr;
}

bool IsLanguage(std::string_view text)
{
    return text.size() == LANGUAGE_SIZE && std::all_of(text.begin(), text.end(), [](char letter) {
               return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z');
           });
}

} // namespace

std::string DescribeStream(std::uint8_t type, const std::vector<Descriptor>& descriptors)
{
    if (type == PRIVATE_DATA_TYPE) {
        if (const char* text = FindPrivateContents(descriptors)) {
            return text;
        }
    }
    if (const char* text = Find(TYPES, type)) {
        return text;
    }
    return type < 0x80 ? "reserved" : "user private";
}

std::string LanguageOf(const std::vector<Descriptor>& descriptors)
{
    for (const Descriptor& descriptor : descriptors) {
        const bool beginsWithLanguage = descriptor.tag == LANGUAGE_TAG ||
                                        descriptor.tag == TELETEXT_TAG ||
                                        descriptor.tag == SUBTITLES_TAG;
        const std::string_view language = descriptor.data.substr(0, LANGUAGE_SIZE);
        if (beginsWithLanguage && IsLanguage(language)) {
            return std::string(language);
        }
    }
    return {};
}

} // namespace tsmon
