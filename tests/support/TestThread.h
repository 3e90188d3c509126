#pragma once

#include <functional>
#include <utility>

#include "Thread.h"

namespace zortest {

/// A stack that is enough under every sanitizer.
constexpr unsigned long TEST_STACK_SIZE = 1024 * 1024;

/// A thread whose body is a function of the test's.
class TestThread : public TCThread
{
 public:
    explicit TestThread(std::function<void()> body = [] {}) : m_body(std::move(body)) {}

    void t_Main() override { m_body(); }

    using TCThread::HasEnded;

 private:
    std::function<void()> m_body;
};

} // namespace zortest
