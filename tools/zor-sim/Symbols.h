#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Report.h"

namespace zorsim {

struct Place
{
    std::string function;
    std::string file; ///< and line; empty if it is not known
};

/// Finds out where addresses of a run lie in the source, with addr2line and nm.
class Symbols
{
 public:
    explicit Symbols(const Report& report);

    /// Looks up all of them at once; the others are known by their module only.
    void Load(const std::vector<std::uint64_t>& addresses);

    /// Of the innermost of the return addresses that is neither the standard library's nor the
    /// simulator's.
    Place PlaceOf(const std::uint64_t* frames, std::size_t count) const;

    /// Of all of them that are the program's, from the innermost one on.
    std::vector<Place> StackOf(const std::uint64_t* frames, std::size_t count) const;

    /// The name of the variable at the address; empty if it has none.
    std::string ObjectAt(std::uint64_t address);

 private:
    const Module* ModuleOf(std::uint64_t address) const;
    void LoadModule(const Module& module, const std::vector<std::uint64_t>& addresses);

    struct Variable
    {
        std::uint64_t size;
        std::string name;
    };
    using Variables = std::map<std::uint64_t, Variable>;
    const Variables& VariablesOf(const Module& module);

    const Report& m_report;
    std::map<std::uint64_t, Place> m_places;
    std::map<std::string, Variables> m_variables;
};

} // namespace zorsim
