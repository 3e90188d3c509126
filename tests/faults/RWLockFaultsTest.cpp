#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ConsoleSeam.h"
#include "FaultCase.h"
#include "RWLock.h"
#include "RWLockSeams.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

/// Makes a call and then answers that it failed, so that nothing is left over.
template <typename Signature>
class FailingAfterwards;

template <typename... Args>
class FailingAfterwards<int(Args...)>
{
 public:
    FailingAfterwards(Seam<int(Args...)>& seam, int error)
        : m_takeover(seam, [&seam, error](Args... args) {
              seam.Real(args...);
              FaultCase::Injected();
              return error;
          })
    {}

 private:
    Takeover<int(Args...)> m_takeover;
};

template <typename Signature>
FailingAfterwards(Seam<Signature>&, int) -> FailingAfterwards<Signature>;

class RWLockFaultsTest : public ::testing::Test
{
 protected:
    /// Expects that @p function asserts "ret == 0" once, with what is printed for @p call.
    static void ExpectReport(const std::string& call, int error,
                             const std::function<void()>& function)
    {
        CaptureStderr();
        const std::vector<std::string> failed = AssertionsOf(function);
        EXPECT_EQ(GetCapturedStderr(),
                  call + " = " + std::to_string(error) + ", " + strerror(error) + "\n");
        EXPECT_THAT(failed, ElementsAre("ret == 0"));
    }

    /// Nobody holds the lock: every thread can have it, in both modes.
    void ExpectFree()
    {
        const auto takeBoth = [this] {
            EXPECT_TRUE(m_lock->RLock());
            EXPECT_TRUE(m_lock->RUnlock());
            EXPECT_FALSE(m_lock->RUnlock());
            EXPECT_TRUE(m_lock->WLock());
            EXPECT_TRUE(m_lock->WUnlock());
            EXPECT_FALSE(m_lock->WUnlock());
        };
        takeBoth();
        OnAnotherThread(takeBoth);
    }

    void Make() { m_lock = std::make_unique<TCRWLock>(); }

    std::unique_ptr<TCRWLock> m_lock;
};

TEST_F(RWLockFaultsTest, LockWithoutAKeyWritesButDoesNotRead)
{
    const FaultCase fault("pthread_key_create", "TCRWLock::TCRWLock",
                          "asserts \"ret == 0\", \"pthread_key_create = %d, %s\\n\"; the lock can "
                          "be written only");
    ExpectReport("pthread_key_create", EAGAIN, [this] {
        const FailingCall noKey(keyCreateSeam, EAGAIN);
        Make();
    });
    OnAnotherThread([this] {
        EXPECT_TRUE(m_lock->WLock());
        EXPECT_TRUE(m_lock->WUnlock());
    });
    ExpectReport("pthread_key_delete", EINVAL, [this] { m_lock.reset(); });
}

TEST_F(RWLockFaultsTest, CountThatCannotBeStoredRefusesTheReadLock)
{
    const FaultCase fault("pthread_setspecific", "TCRWLock::RLock",
                          "asserts \"ret == 0\", \"pthread_setspecific = %d, %s\\n\"; false, and "
                          "nothing is locked");
    AssertionsOf([this] {
        const FailingCall noKey(keyCreateSeam, EAGAIN); // so the system refuses the value
        Make();
    });
    ExpectReport("pthread_setspecific", EINVAL, [this] { EXPECT_FALSE(m_lock->RLock()); });
    OnAnotherThread([this] {
        EXPECT_TRUE(m_lock->WLock());
        EXPECT_TRUE(m_lock->WUnlock());
    });
    AssertionsOf([this] { m_lock.reset(); });
}

TEST_F(RWLockFaultsTest, AttributesThatCannotBeInitialisedAreReported)
{
    const FaultCase fault("pthread_rwlockattr_init", "TCRWLock::TCRWLock",
                          "asserts \"ret == 0\", \"pthread_rwlockattr_init = %d, %s\\n\"; the "
                          "constructor goes on");
    ExpectReport("pthread_rwlockattr_init", ENOMEM, [this] {
        const FailingAfterwards refused(rwlockattrInitSeam, ENOMEM);
        Make();
    });
    ExpectFree();
}

TEST_F(RWLockFaultsTest, LockThatCannotBeInitialisedIsReported)
{
    const FaultCase fault("pthread_rwlock_init", "TCRWLock::TCRWLock",
                          "asserts \"ret == 0\", \"pthread_rwlock_init = %d, %s\\n\", behind the "
                          "end of the attributes");
    ExpectReport("pthread_rwlock_init", EAGAIN, [this] {
        const FailingAfterwards refused(rwlockInitSeam, EAGAIN);
        Make();
    });
}

TEST_F(RWLockFaultsTest, KeyThatCannotBeDeletedIsReported)
{
    const FaultCase fault("pthread_key_delete", "TCRWLock::~TCRWLock",
                          "asserts \"ret == 0\", \"pthread_key_delete = %d, %s\\n\"; the "
                          "destructor goes on");
    Make();
    EXPECT_TRUE(m_lock->RLock()); // a count, which must not be lost
    EXPECT_TRUE(m_lock->RUnlock());
    const FailingAfterwards refused(keyDeleteSeam, EINVAL);
    ExpectReport("pthread_key_delete", EINVAL, [this] { m_lock.reset(); });
}

TEST_F(RWLockFaultsTest, LockThatCannotBeDestroyedIsReported)
{
    const FaultCase fault("pthread_rwlock_destroy", "TCRWLock::~TCRWLock",
                          "asserts \"ret == 0\", \"pthread_rwlock_destroy = %d, %s\\n\"; the "
                          "attributes are destroyed all the same");
    Make();
    int attributes = 0;
    const Takeover count(rwlockattrDestroySeam, [&](pthread_rwlockattr_t* destroyed) {
        ++attributes;
        return rwlockattrDestroySeam.Real(destroyed);
    });
    const FailingAfterwards refused(rwlockDestroySeam, EBUSY);
    ExpectReport("pthread_rwlock_destroy", EBUSY, [this] { m_lock.reset(); });
    EXPECT_EQ(attributes, 1);
}

TEST_F(RWLockFaultsTest, AttributesThatCannotBeDestroyedAreReported)
{
    const FaultCase fault("pthread_rwlockattr_destroy", "TCRWLock::~TCRWLock",
                          "asserts \"ret == 0\", \"pthread_rwlockattr_destroy = %d, %s\\n\"");
    Make();
    const FailingAfterwards refused(rwlockattrDestroySeam, EINVAL);
    ExpectReport("pthread_rwlockattr_destroy", EINVAL, [this] { m_lock.reset(); });
}

TEST_F(RWLockFaultsTest, RefusedReadLockIsFalseAndNotCounted)
{
    const FaultCase fault("pthread_rwlock_rdlock", "TCRWLock::RLock",
                          "asserts \"ret == 0\", \"pthread_rwlock_rdlock = %d, %s\\n\"; false, and "
                          "nothing is locked");
    Make();
    ExpectReport("pthread_rwlock_rdlock", EAGAIN, [this] {
        const FailingCall refused(rdlockSeam, EAGAIN);
        EXPECT_FALSE(m_lock->RLock());
    });
    EXPECT_FALSE(m_lock->RUnlock());
    ExpectFree();
}

TEST_F(RWLockFaultsTest, RefusedWriteLockIsFalseAndHasNoWriter)
{
    const FaultCase fault("pthread_rwlock_wrlock", "TCRWLock::WLock",
                          "asserts \"ret == 0\", \"pthread_rwlock_wrlock = %d, %s\\n\"; false, and "
                          "nothing is locked");
    Make();
    ExpectReport("pthread_rwlock_wrlock", EDEADLK, [this] {
        const FailingCall refused(wrlockSeam, EDEADLK);
        EXPECT_FALSE(m_lock->WLock());
    });
    EXPECT_FALSE(m_lock->WUnlock());
    ExpectFree();
}

TEST_F(RWLockFaultsTest, RefusedReadUnlockIsFalseAndKeepsTheLock)
{
    const FaultCase fault("pthread_rwlock_unlock", "TCRWLock::RUnlock",
                          "asserts \"ret == 0\", \"pthread_rwlock_unlock = %d, %s\\n\"; false, the "
                          "caller still holds it and can unlock again");
    Make();
    EXPECT_TRUE(m_lock->RLock());
    ExpectReport("pthread_rwlock_unlock", EPERM, [this] {
        const FailingCall refused(rwlockUnlockSeam, EPERM);
        EXPECT_FALSE(m_lock->RUnlock());
    });
    EXPECT_TRUE(m_lock->RUnlock());
    ExpectFree();
}

TEST_F(RWLockFaultsTest, RefusedWriteUnlockIsFalseAndThereIsNoWriter)
{
    const FaultCase fault("pthread_rwlock_unlock", "TCRWLock::WUnlock",
                          "asserts \"ret == 0\", \"pthread_rwlock_unlock = %d, %s\\n\"; false, and "
                          "there is no writer any more");
    Make();
    EXPECT_TRUE(m_lock->WLock());
    ExpectReport("pthread_rwlock_unlock", EPERM, [this] {
        const FailingAfterwards refused(rwlockUnlockSeam, EPERM);
        EXPECT_FALSE(m_lock->WUnlock());
    });
    EXPECT_FALSE(m_lock->WUnlock());
    ExpectFree();
}

} // namespace
