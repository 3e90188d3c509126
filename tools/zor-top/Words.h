#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Report.h"

namespace zortop {

/// "7.5 s", "3 min", "2 h".
std::string Duration(double seconds);

/// The type of an event by the name that the runtime or a file has for it, else its number.
std::string TypeWords(const InHand& inHand, const std::map<std::uint64_t, std::string>& names);

/// What a task does: "idle", "handling 101 (EV_ASK) of Scanner for 2.0 s", and what it waits for.
std::string StateWords(const TaskReport& task, const Report& report);

/// The same in one word, for programs.
std::string StateWord(const TaskReport& task, const Report& report);

/// The call that a task's thread waits for, if it is in one; null if not.
const CallReport* CallOf(const TaskReport& task, const Report& report);

/// Names of event types in a file with lines such as "101 EV_ASK"; what follows a # is a remark.
/// Throws Problem.
std::map<std::uint64_t, std::string> ReadTypeNames(const std::string& path);

} // namespace zortop
