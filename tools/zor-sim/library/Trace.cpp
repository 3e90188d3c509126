#include "Trace.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <cstdlib>
#include <cstring>

namespace zorsim {

namespace {

struct Frames
{
    std::uint64_t* to;
    std::uint32_t count;
    std::uint32_t skip;
};

_Unwind_Reason_Code AddFrame(_Unwind_Context* context, void* argument)
{
    Frames* const frames = static_cast<Frames*>(argument);
    const std::uint64_t address = _Unwind_GetIP(context);
    if (address == 0 || frames->count == MAX_FRAMES) {
        return _URC_END_OF_STACK;
    }
    if (frames->skip > 0) {
        --frames->skip;
    } else {
        frames->to[frames->count++] = address;
    }
    return _URC_NO_REASON;
}

/// Reads a line of /proc/self/maps: begin-end flags offset device inode path.
void AddModule(char* line)
{
    char* at = line;
    const std::uint64_t begin = strtoull(at, &at, 16);
    const std::uint64_t end = strtoull(at + 1, &at, 16);
    const bool isCode = at[0] == ' ' && at[3] == 'x';
    const std::uint64_t offset = isCode ? strtoull(at + 5, &at, 16) : 0;
    const char* const path = isCode ? strchr(at, '/') : nullptr;
    if (path == nullptr || g_report->moduleCount == MAX_MODULES) {
        return;
    }
    Module* const module = &g_report->modules[g_report->moduleCount++];
    module->begin = begin;
    module->end = end;
    module->offset = offset;
    strncpy(module->path, path, sizeof(module->path) - 1);
}

/// By system calls alone: this runs at any point of the program, also inside an allocation.
void ReadModules()
{
    const long file = syscall(SYS_openat, AT_FDCWD, "/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return;
    }
    g_report->moduleCount = 0;
    char line[512];
    std::size_t size = 0;
    char buffer[4096];
    for (long count; (count = syscall(SYS_read, file, buffer, sizeof(buffer))) > 0;) {
        for (long i = 0; i < count; ++i) {
            if (buffer[i] != '\n') {
                line[size] = buffer[i];
                size += size + 1 < sizeof(line) ? 1 : 0;
                continue;
            }
            line[size] = '\0';
            AddModule(line);
            size = 0;
        }
    }
    syscall(SYS_close, file);
}

bool IsKnown(std::uint64_t address)
{
    for (std::uint32_t i = 0; i < g_report->moduleCount; ++i) {
        if (address >= g_report->modules[i].begin && address < g_report->modules[i].end) {
            return true;
        }
    }
    return false;
}

std::uint32_t HolderOf(const Thread& thread)
{
    pid_t holder = 0;
    if (thread.operation == Operation::LOCK) {
        holder = static_cast<const pthread_mutex_t*>(thread.object)->__data.__owner;
    } else if (thread.operation == Operation::READ_LOCK ||
               thread.operation == Operation::WRITE_LOCK) {
        holder = static_cast<const pthread_rwlock_t*>(thread.object)->__data.__cur_writer;
    } else if (thread.operation == Operation::JOIN) {
        return static_cast<const Thread*>(thread.object)->id;
    }
    for (std::uint32_t i = 0; holder != 0 && i < ThreadCount(); ++i) {
        if (ThreadAt(i)->tid == holder && ThreadAt(i)->state != ThreadState::FREE) {
            return ThreadAt(i)->id;
        }
    }
    return 0;
}

} // namespace

void AddRecord(const Thread* self, Operation operation, const void* object, const char* text)
{
    if (g_report->recordCount >= g_report->settings.records) {
        return;
    }
    Record* const record = &Records(g_report)[g_report->recordCount++];
    record->step = g_report->steps;
    record->timeNsec = g_now;
    record->thread = self->id;
    record->operation = operation;
    record->object = reinterpret_cast<std::uint64_t>(object);
    memcpy(record->name, self->name, NAME_SIZE);
    if (text != nullptr) {
        strncpy(record->text, text, sizeof(record->text) - 1);
    }
    const Aside aside; // the unwinder takes locks of its own
    Frames frames = {record->frames, 0, 2};
    _Unwind_Backtrace(AddFrame, &frames);
    for (std::uint32_t i = 0; i < frames.count; ++i) {
        if (!IsKnown(record->frames[i])) {
            ReadModules();
            break;
        }
    }
}

void ShowThreads()
{
    ReadModules();
    g_report->shownCount = 0;
    for (std::uint32_t i = 0; i < ThreadCount(); ++i) {
        const Thread& thread = *ThreadAt(i);
        if (thread.state == ThreadState::FREE || thread.state == ThreadState::ENDED ||
            g_report->shownCount == MAX_THREADS_SHOWN) {
            continue;
        }
        ThreadReport* const shown = &g_report->shown[g_report->shownCount++];
        shown->id = thread.id;
        shown->operation = thread.operation;
        shown->waits = thread.state == ThreadState::WAITING ? 1 : 0;
        memcpy(shown->name, thread.name, NAME_SIZE);
        shown->object = reinterpret_cast<std::uint64_t>(thread.object);
        shown->holder = shown->waits != 0 ? HolderOf(thread) : 0;
        shown->deadlineNsec = thread.deadline;
        shown->sinceNsec = thread.since;
        shown->caller = reinterpret_cast<std::uint64_t>(thread.caller);
    }
}

void Note(const char* what)
{
    if (strstr(g_report->notes, what) == nullptr &&
        strlen(g_report->notes) + strlen(what) + 2 < sizeof(g_report->notes)) {
        strcat(g_report->notes, what);
        strcat(g_report->notes, "\n");
    }
}

void Unsupported(const char* what)
{
    Found(Finding::UNSUPPORTED, what);
}

} // namespace zorsim
