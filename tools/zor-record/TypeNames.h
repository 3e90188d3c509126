#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace zorrecord {

/// What event types are called: by a file of the application's, else, for those that every task
/// knows, by the runtime. A recording does not tell a task from another handler, whose types may
/// have the same numbers: there the file decides.
class TypeNames
{
 public:
    /// The runtime's names alone.
    TypeNames();

    /// Reads names from a file of lines such as `101 EV_ASK`; what follows a # is a remark. Numbers
    /// are decimal, or begin with 0x, 0o or 0b.
    ///
    /// @throws std::runtime_error saying what is wrong, with the line
    void ReadFile(const std::string& path);

    /// The name of a type; empty if it has none.
    const std::string& NameOf(std::uint64_t type) const;

    /// A type as it is shown: `101 (EV_ASK)`, or the number alone.
    std::string TextOf(std::uint64_t type) const;

    /// The type that @p text stands for: a number, or a name.
    std::optional<std::uint64_t> Find(const std::string& text) const;

 private:
    std::map<std::uint64_t, std::string> m_names;
};

} // namespace zorrecord
