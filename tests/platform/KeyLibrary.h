#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "KeyCombination.h"
#include "Wait.h"

/// @file
/// The key-combination library as a program has it: loaded at run time, and fed from a FIFO.

namespace zortest {

/// The library, loaded for as long as this lives.
class KeyLibrary
{
 public:
    KeyLibrary() : m_library(dlopen(KEY_LIBRARY, RTLD_NOW))
    {
        EXPECT_NE(m_library, nullptr) << dlerror();
        Find("KeyCombination_Initialize", &initialize);
        Find("KeyCombination_Finalize", &finalize);
        Find("KeyCombination_Add_Handler", &add);
        Find("KeyCombination_Remove_Handler", &remove);
    }

    ~KeyLibrary() { dlclose(m_library); }

    KeyLibrary(const KeyLibrary&) = delete;
    KeyLibrary& operator=(const KeyLibrary&) = delete;

    decltype(&KeyCombination_Initialize) initialize = nullptr;
    decltype(&KeyCombination_Finalize) finalize = nullptr;
    decltype(&KeyCombination_Add_Handler) add = nullptr;
    decltype(&KeyCombination_Remove_Handler) remove = nullptr;

 private:
    template <typename Function>
    void Find(const char* name, Function* function)
    {
        *function = reinterpret_cast<Function>(dlsym(m_library, name));
        EXPECT_NE(*function, nullptr) << name;
    }

    void* const m_library;
};

/// A FIFO of this test's own, which ZOR_KEYS names.
class KeyFifo
{
 public:
    KeyFifo()
    {
        std::string directory = testing::TempDir() + "zor-keys-XXXXXX";
        EXPECT_NE(mkdtemp(directory.data()), nullptr) << directory;
        m_directory = directory;
        EXPECT_EQ(mkfifo(Path().c_str(), 0600), 0);
        setenv("ZOR_KEYS", Path().c_str(), 1);
    }

    ~KeyFifo()
    {
        unsetenv("ZOR_KEYS");
        std::error_code ignored;
        std::filesystem::remove_all(m_directory, ignored);
    }

    KeyFifo(const KeyFifo&) = delete;
    KeyFifo& operator=(const KeyFifo&) = delete;

    std::string Path() const { return m_directory + "/keys"; }
    std::string PathOf(const std::string& name) const { return m_directory + "/" + name; }

    /// Whether somebody reads.
    bool HasReader() const
    {
        const int file = open(Path().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (file >= 0) {
            close(file);
        }
        return file >= 0;
    }

    /// Comes, writes and goes. Somebody must be reading.
    void Write(const std::string& text) const
    {
        const int file = open(Path().c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(file);
    }

 private:
    std::string m_directory;
};

/// A process's presses as its handlers have had them. Any thread may call anything.
class Presses
{
 public:
    void Add(const std::string& press)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_presses.push_back(press);
        m_added.notify_all();
    }

    void Clear()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_presses.clear();
    }

    std::vector<std::string> Get()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_presses;
    }

    /// Waits until there are @p count; what there is after the deadline if there are not.
    std::vector<std::string> WaitFor(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_added.wait_for(lock, DEADLINE, [&] { return m_presses.size() >= count; });
        return m_presses;
    }

 private:
    std::mutex m_mutex; ///< guards the list
    std::condition_variable m_added;
    std::vector<std::string> m_presses;
};

} // namespace zortest
