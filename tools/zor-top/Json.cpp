#include "Json.h"

#include <ctime>
#include <nlohmann/json.hpp>

#include "Words.h"

namespace zortop {
namespace {

using nlohmann::json;

constexpr int SCHEMA_VERSION = 1;

template <typename T>
json OrNull(const std::optional<T>& value)
{
    return value ? json(*value) : json(nullptr);
}

json ThreadOrNull(pid_t thread)
{
    return thread != 0 ? json(thread) : json(nullptr);
}

json InHandOf(const TaskReport& task, const Report& report)
{
    if (!task.facts.inHand) {
        return nullptr;
    }
    const InHand& inHand = *task.facts.inHand;
    return {{"type", inHand.type},
            {"type_name", TypeWords(inHand, report.typeNames)},
            {"receiver", inHand.receiver},
            {"receiver_class",
             inHand.receiverClass.empty() ? json(nullptr) : json(inHand.receiverClass)},
            {"is_own", inHand.isOwn},
            {"for_s", OrNull(task.inHandSec)},
            {"for_at_least", task.isAtLeast}};
}

json WaitOf(const TaskReport& task)
{
    static constexpr const char* KINDS[] = {nullptr, "events", "reply", "lock", "other"};
    if (!task.thread || task.thread->wait.kind == Wait::NOTHING) {
        return nullptr;
    }
    const Wait& wait = task.thread->wait;
    return {{"kind", KINDS[wait.kind]},
            {"what", wait.what.empty() ? json(nullptr) : json(wait.what)},
            {"holder", ThreadOrNull(wait.holder)}};
}

json TaskOf(const TaskReport& task, const Report& report)
{
    json queues = json::array();
    for (const QueueFacts& queue : task.facts.queues) {
        queues.push_back({{"queued", queue.depth},
                          {"peak", queue.peak},
                          {"puts", queue.puts},
                          {"refused", queue.refused}});
    }
    const CallReport* const call = CallOf(task, report);
    return {{"name", task.facts.name},
            {"thread", ThreadOrNull(task.facts.thread)},
            {"address", task.facts.address},
            {"state", StateWord(task, report)},
            {"state_text", StateWords(task, report)},
            {"paused", task.facts.isPaused},
            {"multi_queue", task.facts.isMultiQueue},
            {"running", task.facts.isRunning},
            {"watchdog_s", task.facts.watchdogSec},
            {"cpu", OrNull(task.cpuShare)},
            {"busy", OrNull(task.busyShare)},
            {"events_per_s", OrNull(task.eventsPerSec)},
            {"handled", task.facts.handled},
            {"queued", task.depth},
            {"peak", task.peak},
            {"puts", task.puts},
            {"refused", task.refused},
            {"refused_now", task.refusedNow},
            {"in_hand", InHandOf(task, report)},
            {"waits", WaitOf(task)},
            {"reply_of", call != nullptr ? json(call->receiverName) : json(nullptr)},
            {"queues", queues}};
}

json DueIn(const std::optional<std::int64_t>& dueNsec, const Report& report)
{
    return dueNsec ? json(static_cast<double>(*dueNsec - report.atNsec) / 1e9) : json(nullptr);
}

json NoticesOf(const Report& report)
{
    static constexpr const char* KINDS[] = {"deadlock", "handler", "queue",
                                            "refused",  "waiting", "silent"};
    json notices = json::array();
    for (const Notice& notice : report.notices) {
        notices.push_back({{"kind", KINDS[notice.kind]}, {"text", notice.text}});
    }
    return notices;
}

std::string Time()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    char text[64];
    const std::size_t size = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text + size, sizeof(text) - size, ".%03ldZ", now.tv_nsec / 1000000);
    return text;
}

} // namespace

std::string Json(const Report& report, const Source& source)
{
    json document{{"version", SCHEMA_VERSION},
                  {"time", Time()},
                  {"pid", source.pid},
                  {"library", source.version},
                  {"interval_s", OrNull(report.sinceSec)},
                  {"read_ms", report.tookMsec},
                  {"capacity", report.capacity},
                  {"tasks", json::array()},
                  {"calls", json::array()},
                  {"deadlocks", json::array()},
                  {"alarms", json::array()},
                  {"registry_holder", OrNull(report.registryHolder)},
                  {"notices", NoticesOf(report)},
                  {"remarks", report.remarks}};
    for (const TaskReport& task : report.tasks) {
        document["tasks"].push_back(TaskOf(task, report));
    }
    for (const CallReport& call : report.calls) {
        document["calls"].push_back({{"caller", call.callerName},
                                     {"caller_thread", call.caller},
                                     {"receiver", call.receiverName},
                                     {"receiver_thread", ThreadOrNull(call.receiver)},
                                     {"for_s", call.sec}});
    }
    for (const Circle& circle : report.circles) {
        document["deadlocks"].push_back(
            {{"threads", circle.threads}, {"names", circle.names}, {"waits", circle.waits}});
    }
    for (const AlarmFacts& alarm : report.alarms) {
        document["alarms"].push_back({{"name", alarm.name},
                                      {"thread", alarm.thread},
                                      {"due_in_s", DueIn(alarm.dueNsec, report)}});
    }
    document["timers"] = {{"scheduled", report.timers.scheduled},
                          {"paused", report.timers.paused},
                          {"idle", report.timers.idle},
                          {"due_in_s", DueIn(report.timers.dueNsec, report)}};
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace zortop
