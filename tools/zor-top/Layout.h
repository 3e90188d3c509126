#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "Process.h"

namespace zortop {

/// The table of layouts that the library exports (inc/LayoutTable.h).
class Layout
{
 public:
    /// Reads the table at @p table; throws Problem if it is none, or of a later format.
    Layout(const Memory& memory, Address table);

    /// The version of the library.
    const std::string& Version() const { return m_version; }

    /// Where a member is in its class, or a base; throws Problem if the table does not say.
    std::uint64_t Offset(const std::string& name) const { return EntryOf(name).offset; }

    /// How large it is, or a class; likewise.
    std::uint64_t Size(const std::string& name) const { return EntryOf(name).size; }

    /// Where an object of the process is; likewise.
    Address Object(const std::string& name) const;

 private:
    struct Entry
    {
        std::uint64_t offset;
        std::uint64_t size;
    };

    const Entry& EntryOf(const std::string& name) const;

    std::string m_version;
    std::map<std::string, Entry> m_entries;
    std::map<std::string, Address> m_objects;
};

/// Where the library of a process has its table: its file is found through the process's mappings,
/// and the table through the dynamic symbols, which a stripped file has as well. Throws Problem.
Address FindTable(pid_t pid);

/// Where a dynamic symbol of an ELF file is, counted from where the file is mapped; nothing if the
/// file has no such symbol or cannot be read.
std::optional<std::uint64_t> FindSymbol(const std::string& path, const char* name);

} // namespace zortop
