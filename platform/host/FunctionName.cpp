#include "FunctionName.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace zorhost {
namespace {

constexpr std::size_t LONGEST_NAME = 4096;
constexpr int MOST_BRACKETS = 64;

/// Text in a buffer; what does not fit is dropped.
class TCText
{
 public:
    TCText(char* buffer, std::size_t size) : m_buffer(buffer), m_size(size) { m_buffer[0] = '\0'; }

    void Append(const char* text, std::size_t length)
    {
        for (std::size_t i = 0; i < length && m_length + 1 < m_size; ++i) {
            m_buffer[m_length++] = text[i];
        }
        m_buffer[m_length] = '\0';
    }

    void Append(const char* text) { Append(text, strlen(text)); }

 private:
    char* const m_buffer;
    const std::size_t m_size;
    std::size_t m_length = 0;
};

struct TSOperator
{
    const char* code;
    const char* name;
};

constexpr TSOperator OPERATORS[] = {
    {"cl", "operator()"}, {"ix", "operator[]"}, {"eq", "operator=="},     {"ne", "operator!="},
    {"lt", "operator<"},  {"gt", "operator>"},  {"aS", "operator="},      {"pt", "operator->"},
    {"ls", "operator<<"}, {"rs", "operator>>"}, {"nw", "operator new"},   {"dl", "operator delete"},
    {"pL", "operator+="}, {"pp", "operator++"}, {"na", "operator new[]"}, {"pl", "operator+"},
};

constexpr TSOperator STANDARD[] = {
    {"St", "std"},         {"Sa", "std::allocator"}, {"Sb", "std::basic_string"},
    {"Ss", "std::string"}, {"Si", "std::istream"},   {"So", "std::ostream"},
};

/// Reads a mangled name as far as the names in it go. Each step answers false at what it does not
/// know, and then the whole name stays as it is.
class TCMangled
{
 public:
    TCMangled(const char* text, TCText* out) : m_at(text), m_out(out) {}

    bool Function()
    {
        Skip("_Z");
        if (Skip("N")) {
            return Nested();
        }
        return Component() && Arguments();
    }

 private:
    bool Skip(const char* text)
    {
        const std::size_t length = strlen(text);
        if (strncmp(m_at, text, length) != 0) {
            return false;
        }
        m_at += length;
        return true;
    }

    /// Components up to the E that ends them.
    bool Nested()
    {
        while (*m_at != '\0' && strchr("rVKRO", *m_at) != nullptr) {
            ++m_at; // what the object of the call is
        }
        for (bool first = true; !Skip("E"); first = false) {
            if (!first) {
                m_out->Append("::");
            }
            if (!Component() || !Arguments()) {
                return false;
            }
        }
        return true;
    }

    bool Component()
    {
        if (isdigit(static_cast<unsigned char>(*m_at)) != 0) {
            return SourceName();
        }
        if (*m_at == 'C' || *m_at == 'D') {
            return Structor();
        }
        return Known(STANDARD) || Known(OPERATORS);
    }

    bool SourceName()
    {
        std::size_t length = 0;
        while (isdigit(static_cast<unsigned char>(*m_at)) != 0 && length < LONGEST_NAME) {
            length = 10 * length + static_cast<std::size_t>(*m_at++ - '0');
        }
        if (length == 0 || strnlen(m_at, length) < length) {
            return false;
        }
        m_last = m_at;
        m_lastLength = length;
        m_at += length;
        if (length >= 10 && strncmp(m_last, "_GLOBAL__N", 10) == 0) {
            m_out->Append("(anonymous namespace)");
        } else {
            m_out->Append(m_last, length);
        }
        return true;
    }

    /// A constructor or destructor: the name of its class again.
    bool Structor()
    {
        const bool destroys = *m_at++ == 'D';
        if (*m_at < '0' || *m_at > '5' || m_last == nullptr) {
            return false;
        }
        ++m_at;
        m_out->Append(destroys ? "~" : "");
        m_out->Append(m_last, m_lastLength);
        return true;
    }

    template <std::size_t COUNT>
    bool Known(const TSOperator (&names)[COUNT])
    {
        for (const TSOperator& each : names) {
            if (Skip(each.code)) {
                m_out->Append(each.name);
                // A name that stands behind "std" belongs to it.
                if (strcmp(each.name, "std") == 0) {
                    m_out->Append("::");
                    return Component();
                }
                return true;
            }
        }
        return false;
    }

    /// The arguments of a template, if there are any.
    bool Arguments()
    {
        if (!Skip("I")) {
            return true;
        }
        m_out->Append("<...>");
        return SkipToEnd();
    }

    /// Behind the E that belongs to what has just been opened.
    bool SkipToEnd()
    {
        std::uint64_t lambdas = 0; // a bit for each open bracket: whether it is a lambda's
        for (int depth = 1; depth > 0;) {
            if (*m_at == '\0' || depth >= MOST_BRACKETS) {
                return false;
            }
            if (*m_at == 'E') {
                ++m_at;
                --depth;
                if ((lambdas >> depth & 1) != 0) {
                    SkipNumber();
                }
            } else if (Opens(&lambdas, depth)) {
                ++depth;
            } else if (!SkipOne()) {
                return false;
            }
        }
        return true;
    }

    bool Opens(std::uint64_t* lambdas, int depth)
    {
        const bool lambda = Skip("Ul");
        if (!lambda && !Skip("Dt") && !Skip("DT")) {
            if (strchr("INXFJZ", *m_at) == nullptr) {
                return false;
            }
            ++m_at;
        }
        const std::uint64_t bit = std::uint64_t{1} << depth;
        *lambdas = lambda ? *lambdas | bit : *lambdas & ~bit;
        return true;
    }

    /// What opens and ends nothing.
    bool SkipOne()
    {
        if (isdigit(static_cast<unsigned char>(*m_at)) != 0) {
            return SkipSourceName();
        }
        const char kind = *m_at++;
        if (kind == 'L') {
            return SkipLiteral();
        }
        if (kind == 'S' || kind == 'T') {
            SkipSubstitution();
        } else if (kind == 'A') {
            SkipNumber(); // of an array's elements
        } else if ((kind == 'C' || kind == 'D') && *m_at != '\0') {
            ++m_at; // the second letter of a code, which may be a digit
        }
        return true;
    }

    /// A number and the line below it that ends it; either may be missing.
    void SkipNumber()
    {
        while (isdigit(static_cast<unsigned char>(*m_at)) != 0) {
            ++m_at;
        }
        Skip("_");
    }

    bool SkipSourceName()
    {
        char nowhere[1];
        TCText none(nowhere, sizeof(nowhere));
        TCMangled name(m_at, &none);
        const bool known = name.SourceName();
        m_at = name.m_at;
        return known;
    }

    /// A type and a value, whose digits are no length, up to its E.
    bool SkipLiteral()
    {
        if (*m_at == '_') {
            return false; // a function
        }
        const bool named = isdigit(static_cast<unsigned char>(*m_at)) != 0;
        if (named ? !SkipSourceName() : Skip("N") && !SkipToEnd()) {
            return false;
        }
        while (*m_at != '\0' && *m_at != 'E') {
            ++m_at;
        }
        return Skip("E");
    }

    /// S_, S0_, St, Sa, T_, T0_: letters behind an S that no longer stand for themselves.
    void SkipSubstitution()
    {
        if (islower(static_cast<unsigned char>(*m_at)) != 0) {
            ++m_at;
            return;
        }
        while (*m_at != '\0' && *m_at != '_') {
            ++m_at;
        }
        Skip("_");
    }

    const char* m_at;
    TCText* const m_out;
    const char* m_last = nullptr; ///< the last name of the source
    std::size_t m_lastLength = 0;
};

} // namespace

void WriteFunctionName(const char* symbol, char* name, std::size_t size)
{
    TCText text(name, size);
    if (strncmp(symbol, "_Z", 2) != 0 || !TCMangled(symbol, &text).Function()) {
        snprintf(name, size, "%s", symbol);
    }
}

} // namespace zorhost
