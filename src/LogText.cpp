#include "LogText.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

/// What has been written of a text that is cut to its buffer.
class Text
{
 public:
    Text(char* begin, std::size_t size) : m_at(begin), m_end(begin + size - 1) {}

    char* At() const { return m_at; }
    std::size_t Room() const { return static_cast<std::size_t>(m_end - m_at); }

    void Append(const char* from, std::size_t size)
    {
        size = std::min(size, Room());
        memcpy(m_at, from, size);
        m_at += size;
    }

    template <typename Integer>
    void AppendNumber(Integer number)
    {
        char digits[24]; // 64 bits and a sign
        const auto result = std::to_chars(digits, digits + sizeof(digits), number);
        Append(digits, static_cast<std::size_t>(result.ptr - digits));
    }

 private:
    char* m_at;
    char* const m_end; ///< of the terminator
};

enum class Width
{
    INT,
    LONG, ///< as wide as a long long and a size_t
};

/// Reads a length modifier.
Width ReadWidth(const char** spec)
{
    static_assert(sizeof(long) == sizeof(long long) && sizeof(long) == sizeof(std::size_t));
    if (**spec == 'z') {
        ++*spec;
        return Width::LONG;
    }
    if (**spec != 'l') {
        return Width::INT;
    }
    ++*spec;
    if (**spec == 'l') {
        ++*spec;
    }
    return Width::LONG;
}

/// Writes one conversion; false, with no argument taken, if it is not one of the simple ones.
bool Convert(Text* text, Width width, char conversion, va_list* args)
{
    const bool isLong = width == Width::LONG;
    if (conversion == 'd' || conversion == 'i') {
        isLong ? text->AppendNumber(va_arg(*args, long)) : text->AppendNumber(va_arg(*args, int));
    } else if (conversion == 'u') {
        isLong ? text->AppendNumber(va_arg(*args, unsigned long))
               : text->AppendNumber(va_arg(*args, unsigned int));
    } else if (conversion == 's' && !isLong) {
        const char* string = va_arg(*args, const char*);
        string = string != nullptr ? string : "(null)";
        text->Append(string, strnlen(string, text->Room()));
    } else if (conversion == '%' && !isLong) {
        text->Append("%", 1);
    } else {
        return false;
    }
    return true;
}

} // namespace

void FormatLogText(char* begin, std::size_t size, const char* fmt, va_list* args)
{
    Text text(begin, size);
    for (;;) {
        const char* const literal = fmt;
        while (*fmt != '%' && *fmt != '\0') {
            ++fmt;
        }
        text.Append(literal, static_cast<std::size_t>(fmt - literal));
        if (*fmt == '\0') {
            break;
        }
        const char* spec = fmt + 1;
        const Width width = ReadWidth(&spec);
        if (!Convert(&text, width, *spec, args)) {
            *text.At() = '\0'; // should the format be broken there
            vsnprintf(text.At(), text.Room() + 1, fmt, *args);
            return;
        }
        fmt = spec + 1;
    }
    *text.At() = '\0';
}
