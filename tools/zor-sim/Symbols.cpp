#include "Symbols.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

namespace zorsim {

namespace {

/// What a command prints; empty if it cannot be run.
std::string OutputOf(const std::string& command)
{
    std::string text;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(command.c_str(), "re"),
                                                               pclose);
    std::array<char, 65536> buffer;
    for (std::size_t count;
         pipe && (count = fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0;) {
        text.append(buffer.data(), count);
    }
    return text;
}

std::string Quoted(const std::string& text)
{
    std::string quoted = "'";
    for (const char letter : text) {
        quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    }
    return quoted + "'";
}

std::string BaseName(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

/// The standard library's headers say nothing of the program.
bool IsForeign(const Place& place)
{
    // By name as well: addr2line takes the file of an inlined function for the including one.
    return place.file.empty() || place.file.rfind("/usr/", 0) == 0 ||
           place.function.rfind("__gthread", 0) == 0 || place.function.rfind("std::", 0) == 0 ||
           place.function.find(" std::") != std::string::npos ||
           place.file.find("/zor-sim/library/") != std::string::npos ||
           place.file.find("/c++/") != std::string::npos;
}

std::string WithoutArguments(const std::string& function)
{
    std::size_t at = function.rfind(')');
    for (int depth = 0; at != std::string::npos && at > 0; --at) {
        depth += function[at] == ')' ? 1 : function[at] == '(' ? -1 : 0;
        if (depth == 0) {
            return function.substr(0, at);
        }
    }
    return function;
}

} // namespace

Symbols::Symbols(const Report& report) : m_report(report) {}

const Module* Symbols::ModuleOf(std::uint64_t address) const
{
    for (std::uint32_t i = 0; i < m_report.moduleCount; ++i) {
        const Module& module = m_report.modules[i];
        if (address >= module.begin && address < module.end) {
            return &module;
        }
    }
    return nullptr;
}

void Symbols::Load(const std::vector<std::uint64_t>& addresses)
{
    std::map<const Module*, std::vector<std::uint64_t>> byModule;
    for (const std::uint64_t address : addresses) {
        const Module* const module = address != 0 ? ModuleOf(address) : nullptr;
        if (module != nullptr && m_places.try_emplace(address).second) {
            byModule[module].push_back(address);
        }
    }
    for (const auto& [module, inside] : byModule) {
        LoadModule(*module, inside);
    }
}

/// The lines before the returns are what was called.
void Symbols::LoadModule(const Module& module, const std::vector<std::uint64_t>& addresses)
{
    char path[] = "/tmp/zor-sim-addresses-XXXXXX";
    const int file = mkstemp(path);
    if (file < 0) {
        return;
    }
    close(file);
    std::ofstream list(path);
    for (const std::uint64_t address : addresses) {
        list << std::hex << address - 1 - module.begin + module.offset << '\n';
    }
    list.close();
    std::istringstream lines(
        OutputOf("addr2line -f -C -e " + Quoted(module.path) + " < " + path + " 2>/dev/null"));
    unlink(path);
    for (const std::uint64_t address : addresses) {
        Place& place = m_places[address];
        std::string where;
        if (!std::getline(lines, place.function) || !std::getline(lines, where)) {
            place.function = BaseName(module.path);
        } else if (where.rfind("??", 0) != 0) {
            place.file = where.substr(0, where.find(" (discriminator"));
        }
        place.function = WithoutArguments(place.function);
    }
}

Place Symbols::PlaceOf(const std::uint64_t* frames, std::size_t count) const
{
    const std::vector<Place> stack = StackOf(frames, count);
    if (!stack.empty()) {
        return stack.front();
    }
    const auto found = count > 0 ? m_places.find(frames[0]) : m_places.end();
    return found != m_places.end() ? found->second : Place();
}

std::vector<Place> Symbols::StackOf(const std::uint64_t* frames, std::size_t count) const
{
    std::vector<Place> stack;
    for (std::size_t i = 0; i < count && frames[i] != 0; ++i) {
        const auto found = m_places.find(frames[i]);
        if (found != m_places.end() && !IsForeign(found->second)) {
            stack.push_back(found->second);
        }
    }
    return stack;
}

const Symbols::Variables& Symbols::VariablesOf(const Module& module)
{
    const auto [known, isNew] = m_variables.try_emplace(module.path);
    if (isNew) {
        std::istringstream lines(
            OutputOf("nm -CS --defined-only " + Quoted(module.path) + " 2>/dev/null"));
        for (std::string line; std::getline(lines, line);) {
            std::istringstream fields(line);
            std::uint64_t address = 0;
            Variable variable = {};
            char type = 0;
            if (fields >> std::hex >> address >> variable.size >> type &&
                std::string("bBdDuVvR").find(type) != std::string::npos) {
                std::getline(fields >> std::ws, variable.name);
                known->second[address] = variable;
            }
        }
    }
    return known->second;
}

std::string Symbols::ObjectAt(std::uint64_t address)
{
    for (std::uint32_t i = 0; i < m_report.moduleCount; ++i) {
        const Module& module = m_report.modules[i];
        constexpr std::uint64_t FAR = 64 * 1024 * 1024; // from its code, data of a module is nearer
        if (address < module.end || address - module.end > FAR) {
            continue;
        }
        const Variables& variables = VariablesOf(module);
        auto variable = variables.upper_bound(address - module.begin + module.offset);
        if (variable != variables.begin()) {
            --variable;
            if (address - module.begin + module.offset < variable->first + variable->second.size) {
                return variable->second.name;
            }
        }
    }
    return {};
}

} // namespace zorsim
