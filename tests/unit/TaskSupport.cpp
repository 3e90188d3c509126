#include "TaskSupport.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace zortest {

bool IsRegistered(const TCTask* task)
{
    const RegistryLock lock;
    return TCTaskList::Find(task);
}

void Trace::Add(const std::string& what)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.push_back(what);
}

std::vector<std::string> Trace::Get() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
}

std::size_t Trace::Size() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries.size();
}

bool Trace::WaitFor(std::size_t size) const
{
    return Eventually([this, size] { return Size() >= size; });
}

bool TestTask::Start(const char* name, unsigned int waitMsec, unsigned long watchdogTime)
{
    return Create(name, waitMsec, TEST_STACK_SIZE, watchdogTime);
}

void TestTask::End()
{
    if (!FlagCreate()) {
        return;
    }
    Delete(static_cast<TCHandler*>(this), nullptr);
    EXPECT_TRUE(Eventually([this] { return Post(this, EVENT_EXIT); }));
    Destroy();
}

bool TestTask::t_Create()
{
    return onCreate ? onCreate() : TCTask::t_Create();
}

void TestTask::t_Idle()
{
    onIdle ? onIdle() : TCTask::t_Idle();
}

void TestTask::t_Destroy()
{
    onDestroy ? onDestroy() : TCTask::t_Destroy();
}

bool TestTask::t_OnExit(const TSEvent* event)
{
    return onExit ? onExit(event) : TCTask::t_OnExit(event);
}

bool TestTask::t_OnUser(const TSEvent* event)
{
    return onUser ? onUser(event) : TCTask::t_OnUser(event);
}

bool TestTask::t_OnClearQueue(const TSEvent* event)
{
    return onClearQueue ? onClearQueue(event) : TCTask::t_OnClearQueue(event);
}

void TestTask::t_OnPause(const TSEvent* event)
{
    onPause ? onPause(event) : TCTask::t_OnPause(event);
}

void TestTask::t_OnResume(const TSEvent* event)
{
    onResume ? onResume(event) : TCTask::t_OnResume(event);
}

FunctionHandler::FunctionHandler(Body body, TCTask* task) : m_body(std::move(body))
{
    if (task != nullptr) {
        EXPECT_TRUE(Create(task));
    }
}

FunctionHandler::~FunctionHandler()
{
    EXPECT_TRUE(Eventually([this] { return m_begun == m_handled; }));
    if (FlagCreate()) {
        Destroy();
    }
}

bool FunctionHandler::t_OnEvent(const TSEvent* event)
{
    ++m_begun;
    const bool result = m_body(event);
    ++m_handled;
    return result;
}

Hold::Hold(TCTask* task)
    : m_handler(
          [this](const TSEvent*) {
              m_entered.Pass();
              EXPECT_TRUE(m_release.Wait());
              m_handler.Destroy(); // here, because the task may be gone when the hold goes
              return true;
          },
          task)
{
    TSEvent event = EventTo(&m_handler);
    EXPECT_TRUE(TCTask::Send(&event, false, true));
    EXPECT_TRUE(m_entered.Wait());
}

Caller::Caller(std::function<void()> call)
    : m_thread([this, call = std::move(call)] {
          m_id = pthread_self();
          m_kernelId = static_cast<pid_t>(syscall(SYS_gettid));
          call();
          m_done = true;
      })
{}

void Caller::Join()
{
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

namespace {

/// Whether the system says that thread @p kernelId of this process sleeps.
bool IsAsleep(pid_t kernelId)
{
    std::ifstream file("/proc/self/task/" + std::to_string(kernelId) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    const std::size_t nameEnd = text.rfind(')'); // the state follows the name
    return nameEnd != std::string::npos && text.compare(nameEnd + 2, 1, "S") == 0;
}

/// A thread may sleep for a moment on its way; one that is found asleep so often stays there.
constexpr int TIMES_IN_A_ROW = 10;

} // namespace

bool FallsAsleep(pid_t kernelId)
{
    int asleep = 0;
    return Eventually([&] {
        asleep = IsAsleep(kernelId) ? asleep + 1 : 0;
        return asleep == TIMES_IN_A_ROW;
    });
}

bool Caller::Blocks() const
{
    int asleep = 0;
    EXPECT_TRUE(Eventually([&] {
        asleep = m_kernelId != 0 && IsAsleep(m_kernelId) ? asleep + 1 : 0;
        return IsDone() || asleep == TIMES_IN_A_ROW;
    }));
    return !IsDone();
}

TSEvent EventTo(TCHandler* receiver, unsigned long type, std::uint32_t param1)
{
    TSEvent event;
    event.receiver = receiver;
    event.type = type;
    event.param1 = param1;
    return event;
}

bool Post(TCHandler* receiver, unsigned long type, std::uint32_t param1)
{
    TSEvent event = EventTo(receiver, type, param1);
    return TCTask::Send(&event, false, false);
}

bool Flush(TCTask* task)
{
    TSEvent event = EventTo(task, TCTask::EVENT_RESUME);
    return Eventually([&] { return TCTask::Send(&event, true, false); });
}

bool RunOn(TCTask* task, const std::function<void()>& body)
{
    FunctionHandler handler(
        [&body](const TSEvent*) {
            body();
            return true;
        },
        task);
    TSEvent event = EventTo(&handler);
    return Eventually([&event] { return TCTask::Send(&event, true, true); });
}

void EndAlarm(TCAlarm* alarm)
{
    if (alarm->FlagCreate()) {
        EXPECT_TRUE(RunOn(alarm->Task(), [alarm] { alarm->Destroy(); }));
    }
}

void FillQueue(TCTask* task)
{
    TSEvent event = EventTo(task);
    while (TCTask::Send(&event, false, true)) {
    }
}

std::vector<std::string> PauseLines(const LogRecord& record)
{
    std::vector<std::string> lines;
    for (const LogEntry& entry : record.Get()) {
        if (entry.text.find("[pause_resume]") != std::string::npos) {
            EXPECT_EQ(entry.tag, "ZOR_CORE");
            lines.push_back(std::string(entry.flag ? "true " : "false ") +
                            std::to_string(entry.priority) + " " + entry.text);
        }
    }
    return lines;
}

} // namespace zortest
