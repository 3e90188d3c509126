#pragma once

#include <map>
#include <string>

#include "Process.h"

namespace zortop {

/// Names of the classes of objects, from the tables of virtual operations that they point to. A
/// program has those names without any debug information.
class Classes
{
 public:
    /// @param memory  must outlive this
    explicit Classes(const Memory& memory) : m_memory(memory) {}

    /// The name of the class of the object at @p object, as one would say it; empty if memory does
    /// not say, or there is no object any more.
    const std::string& NameOf(Address object);

    /// The class's name as the compiler writes it, which is the same everywhere.
    const std::string& MangledNameOf(Address object);

 private:
    struct Names
    {
        std::string mangled;
        std::string plain;
    };

    const Names& Find(Address object);
    std::string Mangled(Address table) const;

    const Memory& m_memory;
    std::map<Address, Names> m_names; ///< by the table's address
};

} // namespace zortop
