#include <boost/bind/bind.hpp>
#include <boost/core/ref.hpp>
#include <boost/function.hpp>

#include "Task.h"
#include "TrapPoint.h"

namespace {

/// The location under which tools know the handling of an event. It is a constant of the system and
/// does not follow the source.
TSCodeLocation g_handlerCall("bool TCHandler::OnEvent(const TSEvent*)", "inc/Task.h", 102);

} // namespace

TCHandler::~TCHandler()
{
    TCASSERT(FlagCreate() == false);
}

bool TCHandler::Create(const TCTask* task)
{
    TCASSERT(FlagCreate() == false);
    TCASSERT(task != NULL);
    this->task = const_cast<TCTask*>(task);
    m_created.store(CREATED, std::memory_order_relaxed);
    return true;
}

void TCHandler::Destroy()
{
    TCASSERT(FlagCreate() == true);
    task->DeleteFor(this);
    m_created.store(0, std::memory_order_relaxed);
}

bool TCHandler::OnEvent(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    if (!event->flag) {
        return t_OnEvent(event);
    }
    const auto bound = boost::bind(&TCHandler::t_OnEvent, this, event);
    const boost::function<bool()> call(boost::cref(bound)); // a copy would come from the heap
    const TCArgList1<TSEvent const*&> args(event);
    return zor::CallAtTrapPoint<bool>(g_handlerCall, args, call);
}

TCTask* TCHandler::Task() const
{
    TCASSERT(FlagCreate() == true);
    return task;
}
