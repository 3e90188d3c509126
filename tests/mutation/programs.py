"""The test programs that have to notice the mutants of a source, and the tests left out there.

What is left out is after order and speed, and takes longer than it is worth here.
"""

SEMAPHORES = ["SemaphoreSingleProcessorTest", "SemaphoreSeveralProcessorsTest", "SemaphoreTest",
              "SemaphoreWakingTest", "SemaphoreCancelTest", "SemaphoreForkTest", "MutexTest"]
QUEUES = ["QueueSectionTest", "QueuePageTest", "QueueTest", "QueueThreadTest:-*MillionEvents*",
          "QueueAllocationTest", "QueueModelTest:*DoWhatTheRulesSay/1"]
TASKS = ["TaskTest", "SendTest", "SendCancelTest", "PingTest", "TaskListTest", "PauseTest",
         "TrapPointTest", "WatchdogNotifierTest", "MultiQTaskTest"]
TIMERS = ["TimerTest:-*TenThousand*", "TimersSchedulerTest", "TimersSchedulerClockTest",
          "TimersSchedulerLockTest", "TimersSchedulerModelTest:-*FiftyThousand*"]

FOR = {
    "src/Queue.cpp": QUEUES + ["TaskTest", "SendTest", "MultiQTaskTest"],
    "src/QueueSelect.cpp": QUEUES + ["TaskTest", "MultiQTaskTest"],
    "src/Semaphore.cpp": SEMAPHORES + ["ThreadTest", "QueueTest", "TaskTest"],
    "src/Thread.cpp": ["ThreadTest", "ThreadUtilTest", "TaskTest"],
    "src/Task.cpp": TASKS + ["SyncTest", "TimerTest:-*TenThousand*"],
    "src/TaskControl.cpp": TASKS,
    "src/TaskRequest.cpp": TASKS,
    "src/TaskList.cpp": TASKS,
    "src/TimersScheduler.cpp": TIMERS,
}
