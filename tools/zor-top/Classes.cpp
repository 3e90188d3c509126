#include "Classes.h"

#include <cxxabi.h>

#include <cctype>
#include <cstdlib>
#include <memory>

namespace zortop {
namespace {

constexpr std::size_t LONGEST_NAME = 1024;
constexpr std::size_t MOST_CLASSES = 10000; // objects that are no more point anywhere
constexpr char UNNAMED[] = "(anonymous namespace)::";

std::string Plain(const std::string& mangled)
{
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status), std::free);
    std::string plain = name != nullptr ? name.get() : mangled;
    for (std::size_t at; (at = plain.find(UNNAMED)) != std::string::npos;) {
        plain.erase(at, sizeof(UNNAMED) - 1);
    }
    return plain;
}

} // namespace

const std::string& Classes::NameOf(Address object)
{
    return Find(object).plain;
}

const std::string& Classes::MangledNameOf(Address object)
{
    return Find(object).mangled;
}

const Classes::Names& Classes::Find(Address object)
{
    static const Names none;
    Address table = 0;
    if (!m_memory.Read(object, &table) || table % sizeof(Address) != 0) {
        return none;
    }
    const auto known = m_names.find(table);
    if (known != m_names.end()) {
        return known->second;
    }
    const std::string mangled = Mangled(table);
    if (mangled.empty() || m_names.size() >= MOST_CLASSES) {
        return none;
    }
    return m_names.emplace(table, Names{mangled, Plain(mangled)}).first->second;
}

/// In front of a table is a pointer to the description of the type, which has a pointer to its name
/// behind its own table. A name that begins with a star is not to be compared with others.
std::string Classes::Mangled(Address table) const
{
    Address description = 0;
    Address name = 0;
    std::string text;
    if (!m_memory.Read(table - sizeof(Address), &description) ||
        !m_memory.Read(description + sizeof(Address), &name) ||
        !m_memory.ReadText(name, LONGEST_NAME, &text)) {
        return "";
    }
    if (!text.empty() && text[0] == '*') {
        text.erase(0, 1);
    }
    const bool looksLikeOne = !text.empty() && (std::isdigit(text[0]) != 0 || text[0] == 'N');
    return looksLikeOne ? text : "";
}

} // namespace zortop
