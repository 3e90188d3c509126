#include "Layout.h"

#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <vector>

#include "LayoutTable.h"
#include "Problem.h"

namespace zortop {
namespace {

constexpr char DELETED[] = " (deleted)";
constexpr std::uint32_t MOST = 4096; // entries; a damaged table must not be read for ever

template <std::size_t SIZE>
std::string Text(const char (&from)[SIZE])
{
    return {from, strnlen(from, SIZE)};
}

template <typename Row>
std::vector<Row> Rows(const Memory& memory, Address begin, std::uint32_t step, std::uint32_t count)
{
    if (step < sizeof(Row) || count > MOST) {
        throw Problem(NOT_ZOR_CORE, "the library's table of layouts is damaged");
    }
    std::vector<Row> rows(count);
    std::vector<Piece> pieces;
    for (std::uint32_t i = 0; i < count; ++i) {
        pieces.push_back({begin + Address{step} * i, &rows[i], sizeof(Row)});
    }
    if (!memory.Read(pieces)) {
        throw Problem(NOT_ZOR_CORE, "the library's table of layouts cannot be read");
    }
    return rows;
}

/// What libelf opens, for a scope.
class ElfFile
{
 public:
    explicit ElfFile(const std::string& path) : m_file(open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        elf_version(EV_CURRENT);
        m_elf = m_file >= 0 ? elf_begin(m_file, ELF_C_READ, nullptr) : nullptr;
    }

    ~ElfFile()
    {
        elf_end(m_elf);
        if (m_file >= 0) {
            close(m_file);
        }
    }

    ElfFile(const ElfFile&) = delete;
    ElfFile& operator=(const ElfFile&) = delete;

    Elf* Get() const { return m_elf; }

 private:
    const int m_file;
    Elf* m_elf = nullptr;
};

std::optional<std::uint64_t> SymbolIn(Elf* elf, Elf_Scn* section, const char* name)
{
    GElf_Shdr header;
    Elf_Data* const data = elf_getdata(section, nullptr);
    if (gelf_getshdr(section, &header) == nullptr || header.sh_type != SHT_DYNSYM ||
        data == nullptr || header.sh_entsize == 0) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < header.sh_size / header.sh_entsize; ++i) {
        GElf_Sym symbol;
        if (gelf_getsym(data, static_cast<int>(i), &symbol) == nullptr ||
            symbol.st_shndx == SHN_UNDEF) {
            continue;
        }
        const char* const found = elf_strptr(elf, header.sh_link, symbol.st_name);
        if (found != nullptr && strcmp(found, name) == 0) {
            return symbol.st_value;
        }
    }
    return std::nullopt;
}

/// The file of a mapping as this process can open it: the other may have a root of its own, or the
/// file may have been replaced since.
std::string FileOf(pid_t pid, const Mapping& mapping)
{
    const std::string process = "/proc/" + std::to_string(pid);
    const std::size_t deleted = mapping.path.rfind(DELETED);
    if (deleted == std::string::npos || deleted + strlen(DELETED) != mapping.path.size()) {
        return process + "/root" + mapping.path;
    }
    std::ostringstream range;
    range << std::hex << mapping.begin << '-' << mapping.end;
    return process + "/map_files/" + range.str();
}

} // namespace

Layout::Layout(const Memory& memory, Address table)
{
    zor::LayoutHead head{};
    if (!memory.Read(table, &head) ||
        memcmp(head.magic, zor::LAYOUT_MAGIC, sizeof(head.magic)) != 0) {
        throw Problem(NOT_ZOR_CORE, "the library's table of layouts cannot be read");
    }
    m_version = Text(head.version);
    if (head.format != zor::LAYOUT_FORMAT) {
        throw Problem(NOT_ZOR_CORE, "the library, version " + m_version +
                                        ", has a table of layouts of format " +
                                        std::to_string(head.format) + ", and this zor-top reads " +
                                        std::to_string(zor::LAYOUT_FORMAT) +
                                        ": take the one that came with the library");
    }
    for (const auto& entry :
         Rows<zor::LayoutEntry>(memory, table + head.entriesAt, head.entrySize, head.entryCount)) {
        m_entries[Text(entry.name)] = {entry.offset, entry.size};
    }
    for (const auto& object : Rows<zor::LayoutObject>(memory, table + head.objectsAt,
                                                      head.objectSize, head.objectCount)) {
        m_objects[Text(object.name)] = reinterpret_cast<Address>(object.address);
    }
}

const Layout::Entry& Layout::EntryOf(const std::string& name) const
{
    const auto found = m_entries.find(name);
    if (found == m_entries.end() || found->second.size == 0) {
        throw Problem(NOT_ZOR_CORE, "the library, version " + m_version +
                                        ", does not say where it has " + name +
                                        ": take the zor-top that came with it");
    }
    return found->second;
}

Address Layout::Object(const std::string& name) const
{
    const auto found = m_objects.find(name);
    if (found == m_objects.end()) {
        throw Problem(NOT_ZOR_CORE, "the library, version " + m_version +
                                        ", does not say where it has " + name +
                                        ": take the zor-top that came with it");
    }
    return found->second;
}

std::optional<std::uint64_t> FindSymbol(const std::string& path, const char* name)
{
    const ElfFile file(path);
    if (file.Get() == nullptr || elf_kind(file.Get()) != ELF_K_ELF) {
        return std::nullopt;
    }
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(file.Get(), section)) != nullptr;) {
        if (const auto found = SymbolIn(file.Get(), section, name)) {
            return found;
        }
    }
    return std::nullopt;
}

Address FindTable(pid_t pid)
{
    for (const Mapping& mapping : MappingsOf(pid)) {
        if (!IsLibrary(mapping.path) || mapping.offset != 0) {
            continue;
        }
        const std::string file = FileOf(pid, mapping);
        if (access(file.c_str(), R_OK) != 0) {
            throw Problem(NO_PERMISSION, std::string(strerror(errno)) + ": " + mapping.path +
                                             ", the library of process " + std::to_string(pid) +
                                             ", cannot be read");
        }
        const auto symbol = FindSymbol(file, zor::LAYOUT_SYMBOL);
        if (!symbol) {
            throw Problem(NOT_ZOR_CORE, mapping.path +
                                            " has no table of layouts: it is older than zor-top; "
                                            "zor-inspect can look into the process");
        }
        return mapping.begin + *symbol;
    }
    throw Problem(NOT_ZOR_CORE, "process " + std::to_string(pid) +
                                    " is no zor-core process: it has no libzor-core.so");
}

} // namespace zortop
