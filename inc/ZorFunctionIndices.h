#pragma once

#include <string_view>

/// @file
/// Where the names stand in a compiler's full signature text. Header only, evaluated while a log
/// call is compiled.

namespace zor {

/// Indices into a signature text, of the first and the last character each.
///
/// For "static void ns::Cls::Run(int)" they say scope 12 ("ns"), class 16 to 18, function 21 to 23.
struct FunctionIndices
{
    int scope = -1;         ///< what qualifies the class name; -1 if nothing does
    int classBegin = -1;    ///< the class name without its template arguments;
    int classEnd = -1;      ///< the function's range for a function without a class
    int functionBegin = -1; ///< the function name without its template arguments
    int functionEnd = -1;   ///< its last character
};

/// The last component of a path.
constexpr const char* BaseName(const char* path)
{
    const char* base = path;
    for (const char* at = path; *at != '\0'; ++at) {
        if (*at == '/') {
            base = at + 1;
        }
    }
    return base;
}

/// Reads a signature text from left to right.
///
/// A signature is words (specifiers, the return type) and then a chain of names joined by "::"
/// whose last one is followed at once by a parameter list. Whatever is not part of such a chain
/// starts the search for one anew, so return types of any shape are passed over; template arguments
/// and parameter lists are skipped as balanced groups. A parenthesis after a blank opens a
/// declarator group, as in "void (* Get(int))(double)", and is looked into.
///
/// The text does not tell a namespace from a class: for "void ns::Free()" "ns" counts as the class.
/// Inside a lambda the names are those of the named function around it.
class SignatureReader
{
 public:
    /// @param text  the signature; it must outlive the reader
    constexpr explicit SignatureReader(std::string_view text) : m_text(text) {}

    /// Reads the whole text; to be called once.
    ///
    /// @return the indices; the whole text counts as the function if there is none in it
    constexpr FunctionIndices Read()
    {
        while (!m_done && m_at < m_text.size() && !StartsWith(" [")) {
            Step();
        }
        if (m_found.functionBegin < 0) {
            // No chain with a parameter list: the whole text is all the name there is.
            m_found = {-1, 0, Int(m_text.size()) - 1, 0, Int(m_text.size()) - 1};
        }
        return m_found;
    }

 private:
    struct Name
    {
        int begin = -1;
        int end = -1;
        bool isClass = false; ///< whether it can be the class of the name after it
    };

    constexpr void Step()
    {
        const char c = m_text[m_at];
        if (IsWordChar(c)) {
            ReadWord();
        } else if (StartsWith("::")) {
            m_at += 2;
            m_joined = true;
        } else if (StartsWith("<lambda")) {
            ReadLambda(SkipAngles(m_at));
        } else if (StartsWith("<unnamed ")) {
            ReadUnnamed('>');
        } else if (c == '<') {
            m_at = SkipAngles(m_at);
        } else if (c == '{') {
            ReadUnnamed('}');
        } else if (c == '(') {
            ReadParenthesis();
        } else {
            BreakChain();
            ++m_at;
        }
    }

    constexpr void ReadWord()
    {
        const size_t begin = m_at;
        while (m_at < m_text.size() && IsWordChar(m_text[m_at])) {
            ++m_at;
        }
        const std::string_view word = m_text.substr(begin, m_at - begin);
        if (word == "decltype") {
            BreakChain();
            SkipBlank();
            m_at = SkipParentheses(m_at);
            return;
        }
        if (word == "operator") {
            m_at = OperatorEnd(m_at);
        }
        Append({Int(begin), Int(m_at) - 1, true});
        if (word == "operator" && StartsWith(" <")) { // a blank keeps "<<" and "<int>" apart
            ++m_at;
        }
    }

    constexpr void ReadParenthesis()
    {
        if (StartsWith("(anonymous class)::operator()") && m_found.functionBegin >= 0) {
            m_done = true; // a lambda inside the function that has been found
        } else if (StartsWith("(anonymous ")) {
            ReadUnnamed(')');
        } else if (m_last.begin >= 0 && !m_joined) {
            ReadParameters();
        } else {
            BreakChain();
            ++m_at;
        }
    }

    /// The chain read so far names a function. It is the one that is wanted unless its own name is
    /// only the scope of more: of a local class or of a lambda.
    constexpr void ReadParameters()
    {
        m_found.functionBegin = m_last.begin;
        m_found.functionEnd = m_last.end;
        const Name& owner = m_previous.isClass ? m_previous : m_last;
        m_found.classBegin = owner.begin;
        m_found.classEnd = owner.end;
        m_found.scope = m_previous.isClass && m_chainBegin < m_previous.begin ? m_chainBegin : -1;

        m_at = SkipQualifiers(SkipParentheses(m_at));
        m_last.isClass = false;
        m_done = !StartsWith("::");
    }

    constexpr void ReadLambda(size_t end)
    {
        if (m_found.functionBegin < 0) {
            Append({Int(m_at), Int(end) - 1, false});
            m_found = {-1, m_last.begin, m_last.end, m_last.begin, m_last.end};
        }
        m_done = true;
    }

    constexpr void ReadUnnamed(char close)
    {
        const size_t begin = m_at;
        while (m_at < m_text.size() && m_text[m_at] != close) {
            ++m_at;
        }
        m_at = m_at < m_text.size() ? m_at + 1 : m_at;
        Append({Int(begin), Int(m_at) - 1, false});
    }

    constexpr void Append(Name name)
    {
        if (m_joined && m_last.begin >= 0) {
            m_previous = m_last;
        } else {
            m_previous = {};
            m_chainBegin = name.begin;
        }
        m_last = name;
        m_joined = false;
    }

    constexpr void BreakChain()
    {
        m_last = {};
        m_previous = {};
        m_joined = false;
    }

    constexpr void SkipBlank()
    {
        if (m_at < m_text.size() && m_text[m_at] == ' ') {
            ++m_at;
        }
    }

    /// The end of an operator's name, which starts behind the word "operator" at @p at.
    constexpr size_t OperatorEnd(size_t at) const
    {
        const std::string_view rest = m_text.substr(at);
        for (const std::string_view name : {"()", "[]", " new []", " delete []", " new[]",
                                            " delete[]", " new(", " delete(", " co_await("}) {
            if (rest.substr(0, name.size()) == name) {
                return at + name.size() - (name.back() == '(' ? 1 : 0);
            }
        }
        if (rest.substr(0, 2) == "\"\"") {
            at += 2;
            while (at < m_text.size() && (IsWordChar(m_text[at]) || m_text[at] == ' ')) {
                ++at;
            }
            return at;
        }
        if (rest.substr(0, 1) == " ") {
            return ConversionEnd(at);
        }
        while (at < m_text.size() && IsOperatorChar(m_text[at])) {
            ++at;
        }
        return at;
    }

    /// A conversion's name is a type of any shape; behind it comes the last empty "()".
    constexpr size_t ConversionEnd(size_t at) const
    {
        while (at < m_text.size()) {
            const char c = m_text[at];
            if (c == '<') {
                at = SkipAngles(at);
            } else if (c != '(') {
                ++at;
            } else if (m_text.substr(at, 2) == "()" && m_text.substr(at, 3) != "()(") {
                return at;
            } else {
                at = SkipParentheses(at);
            }
        }
        return at;
    }

    constexpr size_t SkipQualifiers(size_t at) const
    {
        for (bool skipped = true; skipped;) {
            skipped = false;
            for (const std::string_view word : {" const", " volatile", " &&", " &", " mutable"}) {
                if (m_text.substr(at, word.size()) == word) {
                    at += word.size();
                    skipped = true;
                }
            }
        }
        return at;
    }

    constexpr size_t SkipParentheses(size_t at) const
    {
        int depth = 0;
        while (at < m_text.size()) {
            const char c = m_text[at];
            at += c == '\'' ? QuotedSize(at) : 1;
            depth += c == '(' ? 1 : c == ')' ? -1 : 0;
            if (depth <= 0) {
                break;
            }
        }
        return at;
    }

    constexpr size_t SkipAngles(size_t at) const
    {
        int depth = 0;
        while (at < m_text.size()) {
            const char c = m_text[at];
            if (c == '(') {
                at = SkipParentheses(at);
                continue;
            }
            const bool isArrow = c == '>' && m_text[at - 1] == '-';
            at += c == '\'' ? QuotedSize(at) : 1;
            depth += c == '<' ? 1 : c == '>' && !isArrow ? -1 : 0;
            if (depth <= 0) {
                break;
            }
        }
        return at;
    }

    /// The size of a character literal such as '(' or '\n'; 1 for an apostrophe by itself.
    constexpr size_t QuotedSize(size_t at) const
    {
        const size_t size = m_text.substr(at + 1, 1) == "\\" ? 4 : 3;
        return at + size <= m_text.size() && m_text[at + size - 1] == '\'' ? size : 1;
    }

    constexpr bool StartsWith(std::string_view text) const
    {
        return m_text.substr(m_at, text.size()) == text;
    }

    static constexpr bool IsWordChar(char c)
    {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '~' || c == '$' || static_cast<unsigned char>(c) >= 0x80;
    }

    static constexpr bool IsOperatorChar(char c)
    {
        return std::string_view("+-*/%^&|~!=<>,").find(c) != std::string_view::npos;
    }

    static constexpr int Int(size_t index) { return static_cast<int>(index); }

    std::string_view m_text;
    size_t m_at = 0;
    FunctionIndices m_found;
    Name m_last;           ///< the newest name of the chain
    Name m_previous;       ///< the one before it
    int m_chainBegin = -1; ///< where the chain's first name begins
    bool m_joined = false; ///< whether "::" has been read behind m_last
    bool m_done = false;
};

/// Finds the class and function names in @p prettyFunction, the text of `__PRETTY_FUNCTION__`.
constexpr FunctionIndices FindFunctionIndices(std::string_view prettyFunction)
{
    return SignatureReader(prettyFunction).Read();
}

} // namespace zor
