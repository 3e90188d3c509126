#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "ConsoleSeam.h"
#include "Debug.h"
#include "RWLock.h"
#include "RWLockSeams.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

/// The calls of the system that make and release a lock, in their order, and one that fails.
class RWLockFailureTest : public ::testing::Test
{
 protected:
    RWLockFailureTest()
        : m_keyCreate(keyCreateSeam,
                      [this](pthread_key_t* key, KeyDestructor destructor) {
                          return Answer("key_create", keyCreateSeam.Real(key, destructor));
                      }),
          m_attrInit(rwlockattrInitSeam,
                     [this](pthread_rwlockattr_t* attributes) {
                         return Answer("rwlockattr_init", rwlockattrInitSeam.Real(attributes));
                     }),
          m_lockInit(rwlockInitSeam,
                     [this](pthread_rwlock_t* lock, const pthread_rwlockattr_t* attributes) {
                         return Answer("rwlock_init", rwlockInitSeam.Real(lock, attributes));
                     }),
          m_keyDelete(
              keyDeleteSeam,
              [this](pthread_key_t key) { return Answer("key_delete", keyDeleteSeam.Real(key)); }),
          m_lockDestroy(rwlockDestroySeam,
                        [this](pthread_rwlock_t* lock) {
                            return Answer("rwlock_destroy", rwlockDestroySeam.Real(lock));
                        }),
          m_attrDestroy(rwlockattrDestroySeam, [this](pthread_rwlockattr_t* attributes) {
              return Answer("rwlockattr_destroy", rwlockattrDestroySeam.Real(attributes));
          })
    {}

    /// Notes a call of pthread_@p call. A call that is to fail has been made all the same, so that
    /// nothing is left over.
    int Answer(const std::string& call, int result)
    {
        m_calls.push_back(call);
        return call == m_failing ? m_error : result;
    }

    /// Runs @p function as in a release build, with pthread_@p call failing with @p error.
    void RunWithFailing(const std::string& call, int error, const std::function<void()>& function)
    {
        m_failing = call;
        m_error = error;
        CaptureStderr();
        m_failed = AssertionsOf(function);
        m_messages = GetCapturedStderr();
        m_failing.clear();
    }

    static std::string Message(const std::string& call, int error)
    {
        return "pthread_" + call + " = " + std::to_string(error) + ", " + strerror(error) + "\n";
    }

    std::vector<std::string> m_calls;
    std::vector<std::string> m_failed; ///< texts of the assertions
    std::string m_messages;            ///< on standard error
    std::unique_ptr<TCRWLock> m_lock;

 private:
    std::string m_failing;
    int m_error = 0;
    Takeover<int(pthread_key_t*, KeyDestructor)> m_keyCreate;
    Takeover<int(pthread_rwlockattr_t*)> m_attrInit;
    Takeover<int(pthread_rwlock_t*, const pthread_rwlockattr_t*)> m_lockInit;
    Takeover<int(pthread_key_t)> m_keyDelete;
    Takeover<int(pthread_rwlock_t*)> m_lockDestroy;
    Takeover<int(pthread_rwlockattr_t*)> m_attrDestroy;
};

TEST_F(RWLockFailureTest, CallsAreMadeInOrder)
{
    RunWithFailing("nothing", 0, [this] {
        m_lock = std::make_unique<TCRWLock>();
        m_lock.reset();
    });
    EXPECT_THAT(m_calls, ElementsAre("key_create", "rwlockattr_init", "rwlock_init", "key_delete",
                                     "rwlock_destroy", "rwlockattr_destroy"));
    EXPECT_THAT(m_failed, IsEmpty());
    EXPECT_EQ(m_messages, "");
}

TEST_F(RWLockFailureTest, KeyCreationIsReportedAndTheConstructorGoesOn)
{
    RunWithFailing("key_create", EAGAIN, [this] { m_lock = std::make_unique<TCRWLock>(); });
    EXPECT_EQ(m_messages, Message("key_create", EAGAIN));
    EXPECT_EQ(m_messages, "pthread_key_create = 11, Resource temporarily unavailable\n");
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
    EXPECT_THAT(m_calls, ElementsAre("key_create", "rwlockattr_init", "rwlock_init"));
}

TEST_F(RWLockFailureTest, AttributeInitIsReportedAndTheConstructorGoesOn)
{
    RunWithFailing("rwlockattr_init", ENOMEM, [this] { m_lock = std::make_unique<TCRWLock>(); });
    EXPECT_EQ(m_messages, Message("rwlockattr_init", ENOMEM));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
    EXPECT_THAT(m_calls, ElementsAre("key_create", "rwlockattr_init", "rwlock_init"));
}

TEST_F(RWLockFailureTest, LockInitIsReported)
{
    RunWithFailing("rwlock_init", EPERM, [this] { m_lock = std::make_unique<TCRWLock>(); });
    EXPECT_EQ(m_messages, Message("rwlock_init", EPERM));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
}

TEST_F(RWLockFailureTest, LockInitThatFailsDestroysTheAttributesFirst)
{
    std::vector<std::string> callsAtReport;
    test::TSCustomAssert::callback = [&](const char*, unsigned long) { callsAtReport = m_calls; };
    RunWithFailing("rwlock_init", EPERM, [this] { m_lock = std::make_unique<TCRWLock>(); });
    test::TSCustomAssert::callback = nullptr;
    EXPECT_THAT(callsAtReport,
                ElementsAre("key_create", "rwlockattr_init", "rwlock_init", "rwlockattr_destroy"));
}

TEST_F(RWLockFailureTest, KeyDeletionIsReportedAndTheDestructorGoesOn)
{
    m_lock = std::make_unique<TCRWLock>();
    m_calls.clear();
    RunWithFailing("key_delete", EINVAL, [this] { m_lock.reset(); });
    EXPECT_EQ(m_messages, Message("key_delete", EINVAL));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
    EXPECT_THAT(m_calls, ElementsAre("key_delete", "rwlock_destroy", "rwlockattr_destroy"));
}

TEST_F(RWLockFailureTest, LockDestructionIsReportedAndTheAttributesAreDestroyedAllTheSame)
{
    m_lock = std::make_unique<TCRWLock>();
    m_calls.clear();
    RunWithFailing("rwlock_destroy", EBUSY, [this] { m_lock.reset(); });
    EXPECT_EQ(m_messages, Message("rwlock_destroy", EBUSY));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
    EXPECT_THAT(m_calls, ElementsAre("key_delete", "rwlock_destroy", "rwlockattr_destroy"));
}

TEST_F(RWLockFailureTest, AttributeDestructionIsReported)
{
    m_lock = std::make_unique<TCRWLock>();
    RunWithFailing("rwlockattr_destroy", EINVAL, [this] { m_lock.reset(); });
    EXPECT_EQ(m_messages, Message("rwlockattr_destroy", EINVAL));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
}

TEST_F(RWLockFailureTest, ReadLockThatFailsIsReportedAndNotCounted)
{
    m_lock = std::make_unique<TCRWLock>();
    {
        const Takeover rdlock(rdlockSeam, [](pthread_rwlock_t*) { return EAGAIN; });
        RunWithFailing("nothing", 0, [this] { EXPECT_FALSE(m_lock->RLock()); });
    }
    EXPECT_EQ(m_messages, Message("rwlock_rdlock", EAGAIN));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
    EXPECT_FALSE(m_lock->RUnlock());
    EXPECT_TRUE(m_lock->WLock());
    EXPECT_TRUE(m_lock->WUnlock());
}

/// The report leads to the call, not to what asserts for all of them.
TEST(RWLockFailureLineTest, EachFailingCallIsReportedAtItsOwnLine)
{
    std::vector<unsigned long> lines;
    test::TSCustomAssert::callback = [&lines](const char*, unsigned long line) {
        lines.push_back(line);
    };
    {
        TCRWLock lock;
        const Takeover rdlock(rdlockSeam, [](pthread_rwlock_t*) { return EAGAIN; });
        const Takeover wrlock(wrlockSeam, [](pthread_rwlock_t*) { return EAGAIN; });
        EXPECT_FALSE(lock.RLock());
        EXPECT_FALSE(lock.WLock());
    }
    test::TSCustomAssert::callback = nullptr;
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_LT(lines[0], lines[1]);
}

TEST_F(RWLockFailureTest, ReadLockWithoutAPlaceForItsCountIsReportedAndNotTaken)
{
    {
        const Takeover key(keyCreateSeam, [](pthread_key_t* made, KeyDestructor destructor) {
            const int result = keyCreateSeam.Real(made, destructor);
            pthread_key_delete(*made);
            return result;
        });
        m_lock = std::make_unique<TCRWLock>();
    }
    RunWithFailing("nothing", 0, [this] { EXPECT_FALSE(m_lock->RLock()); });
    EXPECT_EQ(m_messages, Message("setspecific", EINVAL));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
    EXPECT_FALSE(m_lock->RUnlock());
    std::thread([this] {
        EXPECT_TRUE(m_lock->WLock()); // a read lock left behind would keep it away
        EXPECT_TRUE(m_lock->WUnlock());
    }).join();
    RunWithFailing("nothing", 0, [this] { m_lock.reset(); });
    EXPECT_EQ(m_messages, Message("key_delete", EINVAL));
}

TEST_F(RWLockFailureTest, WriteLockThatFailsIsReportedAndNotRecorded)
{
    m_lock = std::make_unique<TCRWLock>();
    {
        const Takeover wrlock(wrlockSeam, [](pthread_rwlock_t*) { return EDEADLK; });
        RunWithFailing("nothing", 0, [this] { EXPECT_FALSE(m_lock->WLock()); });
    }
    EXPECT_EQ(m_messages, Message("rwlock_wrlock", EDEADLK));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
    EXPECT_FALSE(m_lock->WUnlock());
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_FALSE(m_lock->RUnlock()); // it was counted, so there was no writer
}

TEST_F(RWLockFailureTest, ReadUnlockThatFailsIsReportedAndKeepsTheCount)
{
    m_lock = std::make_unique<TCRWLock>();
    EXPECT_TRUE(m_lock->RLock());
    {
        const Takeover unlock(rwlockUnlockSeam, [](pthread_rwlock_t*) { return EPERM; });
        RunWithFailing("nothing", 0, [this] { EXPECT_FALSE(m_lock->RUnlock()); });
    }
    EXPECT_EQ(m_messages, Message("rwlock_unlock", EPERM));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_FALSE(m_lock->RUnlock());
}

TEST_F(RWLockFailureTest, WriteUnlockThatFailsIsReportedAfterTheWriterIsCleared)
{
    m_lock = std::make_unique<TCRWLock>();
    EXPECT_TRUE(m_lock->WLock());
    bool wasWriter = true;
    {
        const Takeover unlock(rwlockUnlockSeam, [&](pthread_rwlock_t* lock) {
            wasWriter = m_lock->WUnlock();
            rwlockUnlockSeam.Real(lock);
            return EPERM;
        });
        RunWithFailing("nothing", 0, [this] { EXPECT_FALSE(m_lock->WUnlock()); });
    }
    EXPECT_FALSE(wasWriter);
    EXPECT_EQ(m_messages, Message("rwlock_unlock", EPERM));
    EXPECT_THAT(m_failed, ElementsAre("ret == 0"));
    EXPECT_FALSE(m_lock->WUnlock());
    EXPECT_TRUE(m_lock->WLock());
    EXPECT_TRUE(m_lock->WUnlock());
}

using RWLockFailureDeathTest = RWLockFailureTest;

TEST_F(RWLockFailureDeathTest, FailingCallAsserts)
{
    m_lock = std::make_unique<TCRWLock>();
    const Takeover wrlock(wrlockSeam, [](pthread_rwlock_t*) { return EDEADLK; });
    EXPECT_ASSERT_DEATH(m_lock->WLock(), "ret == 0");
}

/// Makes and destroys a lock that gets no key, in memory full of the number of another key.
/// @return the keys that are deleted meanwhile
std::vector<pthread_key_t> KeysDeletedByALockWithoutAKey(pthread_key_t foreign)
{
    alignas(TCRWLock) static unsigned char memory[sizeof(TCRWLock)];
    for (std::size_t at = 0; at + sizeof(foreign) <= sizeof(memory); at += sizeof(foreign)) {
        memcpy(memory + at, &foreign, sizeof(foreign));
    }
    std::vector<pthread_key_t> deleted;
    const Takeover noKey(keyCreateSeam, [](pthread_key_t*, KeyDestructor) { return EAGAIN; });
    const Takeover keyDelete(keyDeleteSeam, [&](pthread_key_t key) {
        deleted.push_back(key);
        return EINVAL;
    });
    AssertionsOf([] { (new (memory) TCRWLock)->~TCRWLock(); });
    return deleted;
}

TEST(RWLockWithoutKeyDeathTest, LeavesTheKeysOfOthersAlone)
{
    EXPECT_EXIT(
        {
            static std::uint32_t value = 7; // nothing that could be freed
            pthread_key_t foreign = 0;
            pthread_key_create(&foreign, nullptr);
            pthread_setspecific(foreign, &value);
            const auto deleted = KeysDeletedByALockWithoutAKey(foreign);
            const bool isForeign = std::count(deleted.begin(), deleted.end(), foreign) > 0;
            _exit(isForeign || value != 7 ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
