#include "Words.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <vector>

#include "Problem.h"

namespace zortop {
namespace {

/// What a task's own handler takes, as Task.h numbers it.
constexpr const char* OWN_TYPES[] = {"EVENT_EXIT",        "EVENT_USER",  "EVENT_PING",
                                     "EVENT_CLEAR_QUEUE", "EVENT_PAUSE", "EVENT_RESUME"};

const char* RuntimeName(const InHand& inHand)
{
    if (inHand.isOwn && inHand.type < std::size(OWN_TYPES)) {
        return OWN_TYPES[inHand.type];
    }
    return nullptr;
}

/// A whole number, decimal or with 0x, 0o or 0b before it.
std::optional<std::uint64_t> NumberIn(std::string text)
{
    static const std::map<std::string, int> BASES{{"0x", 16}, {"0o", 8}, {"0b", 2}};
    int base = 10;
    const auto found = BASES.find(text.substr(0, 2));
    if (found != BASES.end()) {
        base = found->second;
        text.erase(0, 2);
    }
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, base);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

std::string HandlingWords(const TaskReport& task, const Report& report)
{
    const InHand& inHand = *task.facts.inHand;
    std::string words = "handling " + TypeWords(inHand, report.typeNames);
    if (!inHand.isOwn && !inHand.receiverClass.empty()) {
        words += " of " + inHand.receiverClass;
    }
    if (task.inHandSec && *task.inHandSec >= 0.1) {
        words += (task.isAtLeast ? " for at least " : " for ") + Duration(*task.inHandSec);
    }
    return words;
}

std::string WaitWords(const TaskReport& task, const Report& report)
{
    if (!task.thread) {
        return "";
    }
    const Wait& wait = task.thread->wait;
    if (wait.kind == Wait::LOCK) {
        std::string holder;
        for (const TaskReport& other : report.tasks) {
            if (other.facts.thread == wait.holder && wait.holder != 0) {
                holder = ", held by " + other.facts.name;
            }
        }
        if (holder.empty() && wait.holder != 0) {
            holder = ", held by thread " + std::to_string(wait.holder);
        }
        return "waiting for " + wait.what + holder;
    }
    const CallReport* const call = CallOf(task, report);
    if (call != nullptr && wait.kind != Wait::NOTHING) {
        return "waiting for the reply of " + call->receiverName + ", " + Duration(call->sec);
    }
    return wait.kind == Wait::REPLY ? "waiting for a reply" : "";
}

} // namespace

std::string Duration(double seconds)
{
    char text[32];
    if (seconds < 120) {
        snprintf(text, sizeof(text), "%.1f s", seconds);
    } else if (seconds < 2 * 3600) {
        snprintf(text, sizeof(text), "%.0f min", seconds / 60);
    } else {
        snprintf(text, sizeof(text), "%.0f h", seconds / 3600);
    }
    return text;
}

std::string TypeWords(const InHand& inHand, const std::map<std::uint64_t, std::string>& names)
{
    if (const char* const name = RuntimeName(inHand)) {
        return name;
    }
    const auto found = names.find(inHand.type);
    const std::string number = std::to_string(inHand.type);
    return found != names.end() ? number + " (" + found->second + ")" : number;
}

const CallReport* CallOf(const TaskReport& task, const Report& report)
{
    for (const CallReport& call : report.calls) {
        if (call.caller == task.facts.thread && call.receiver != call.caller) {
            return &call;
        }
    }
    return nullptr;
}

std::string StateWord(const TaskReport& task, const Report& report)
{
    const std::string wait = WaitWords(task, report);
    if (task.facts.thread == 0) {
        return "ended";
    }
    if (task.facts.isPaused) {
        return "paused";
    }
    if (!wait.empty()) {
        return task.thread->wait.kind == Wait::LOCK ? "lock" : "reply";
    }
    if (task.facts.inHand) {
        return "handling";
    }
    return task.facts.isRunning ? "idle" : "starting or ending";
}

std::string StateWords(const TaskReport& task, const Report& report)
{
    const std::string word = StateWord(task, report);
    if (word == "paused" || word == "ended") {
        return word;
    }
    const std::string wait = WaitWords(task, report);
    if (task.facts.inHand) {
        return HandlingWords(task, report) + (wait.empty() ? "" : ", " + wait);
    }
    return wait.empty() ? word : wait;
}

std::map<std::uint64_t, std::string> ReadTypeNames(const std::string& path)
{
    std::map<std::uint64_t, std::string> names;
    errno = 0;
    std::ifstream file(path);
    if (!file) {
        throw Problem(USAGE, std::string(std::strerror(errno)) + ": the names of event types in '" +
                                 path + "'");
    }
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        std::istringstream words(line.substr(0, line.find('#')));
        std::vector<std::string> found;
        for (std::string word; words >> word;) {
            found.push_back(word);
        }
        if (found.empty()) {
            continue;
        }
        const std::optional<std::uint64_t> type = NumberIn(found[0]);
        if (found.size() != 2 || !type) {
            throw Problem(USAGE, "'" + path + "', line " + std::to_string(number) +
                                     ": not a number and a name, as in '101 EV_ASK'");
        }
        names[*type] = found[1];
    }
    return names;
}

} // namespace zortop
