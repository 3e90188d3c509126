#include "RWLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "ConsoleSeam.h"
#include "Layout.h"
#include "RWLockSeams.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

enum class Held
{
    NOT,
    FOR_READING,
    FOR_WRITING,
};

std::ostream& operator<<(std::ostream& stream, Held held)
{
    constexpr const char* NAMES[] = {"not", "for reading", "for writing"};
    return stream << "held " << NAMES[static_cast<int>(held)];
}

/// A lock whose inside another thread can look at.
class RWLockTest : public ::testing::Test
{
 protected:
    RWLockTest()
    {
        const Takeover init(rwlockInitSeam,
                            [this](pthread_rwlock_t* lock, const pthread_rwlockattr_t* attributes) {
                                m_inside = lock;
                                return rwlockInitSeam.Real(lock, attributes);
                            });
        m_lock = std::make_unique<TCRWLock>();
    }

    /// How the lock is held, by whatever thread.
    Held State()
    {
        Held held = Held::FOR_WRITING;
        std::thread([&] {
            if (pthread_rwlock_trywrlock(m_inside) == 0) {
                held = Held::NOT;
                pthread_rwlock_unlock(m_inside);
            } else if (pthread_rwlock_tryrdlock(m_inside) == 0) {
                held = Held::FOR_READING;
                pthread_rwlock_unlock(m_inside);
            }
        }).join();
        return held;
    }

    /// What another thread gets for @p operation.
    bool OnAnotherThread(bool (TCRWLock::*operation)())
    {
        bool result = false;
        std::thread([&] { result = (m_lock.get()->*operation)(); }).join();
        return result;
    }

    pthread_rwlock_t* m_inside = nullptr;
    std::unique_ptr<TCRWLock> m_lock;
};

TEST_F(RWLockTest, IsFreeAfterConstruction)
{
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, ReadLockedTwiceItIsHeldUntilTheSecondUnlock)
{
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_EQ(State(), Held::FOR_READING);
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_EQ(State(), Held::FOR_READING);
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_EQ(State(), Held::NOT);
    EXPECT_FALSE(m_lock->RUnlock());
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, NestedReadLocksTakeTheLockOnce)
{
    int taken = 0;
    const Takeover rdlock(rdlockSeam, [&](pthread_rwlock_t* lock) {
        ++taken;
        return rdlockSeam.Real(lock);
    });
    constexpr int NESTED = 100;
    for (int i = 0; i < NESTED; ++i) {
        EXPECT_TRUE(m_lock->RLock());
    }
    EXPECT_EQ(taken, 1);
    for (int i = 0; i < NESTED; ++i) {
        EXPECT_EQ(State(), Held::FOR_READING);
        EXPECT_TRUE(m_lock->RUnlock());
    }
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, CanBeReadLockedAgain)
{
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_EQ(State(), Held::FOR_READING);
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, WriteLockedTwiceItIsHeldUntilTheSecondUnlock)
{
    EXPECT_TRUE(m_lock->WLock());
    EXPECT_TRUE(m_lock->WLock());
    EXPECT_EQ(State(), Held::FOR_WRITING);
    EXPECT_TRUE(m_lock->WUnlock());
    EXPECT_EQ(State(), Held::FOR_WRITING);
    EXPECT_TRUE(m_lock->WUnlock());
    EXPECT_EQ(State(), Held::NOT);
    EXPECT_FALSE(m_lock->WUnlock());
}

TEST_F(RWLockTest, WriterMayReadLock)
{
    EXPECT_TRUE(m_lock->WLock());
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_EQ(State(), Held::FOR_WRITING);
    EXPECT_TRUE(m_lock->WUnlock());
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, ReadLocksOfTheWriterAreNotCounted)
{
    EXPECT_TRUE(m_lock->WLock());
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_TRUE(m_lock->WUnlock());
    EXPECT_EQ(State(), Held::NOT);
    EXPECT_FALSE(m_lock->RUnlock());
    EXPECT_TRUE(m_lock->WLock()); // no read lock is in its way
    EXPECT_TRUE(m_lock->WUnlock());
}

TEST_F(RWLockTest, ReadUnlocksOfTheWriterAreAcceptedAndIgnored)
{
    EXPECT_TRUE(m_lock->WLock());
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_EQ(State(), Held::FOR_WRITING);
    EXPECT_TRUE(m_lock->WUnlock());
}

TEST_F(RWLockTest, UnlocksOfAFreeLockAreRefusedWithoutAnAssertion)
{
    EXPECT_THAT(AssertionsOf([this] {
                    EXPECT_FALSE(m_lock->RUnlock());
                    EXPECT_FALSE(m_lock->WUnlock());
                }),
                IsEmpty());
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, WriteUnlockByAnotherThreadLeavesItHeld)
{
    EXPECT_TRUE(m_lock->WLock());
    EXPECT_FALSE(OnAnotherThread(&TCRWLock::WUnlock));
    EXPECT_EQ(State(), Held::FOR_WRITING);
    EXPECT_TRUE(m_lock->WUnlock());
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, WriteUnlockOfAReaderLeavesItHeld)
{
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_FALSE(m_lock->WUnlock());
    EXPECT_EQ(State(), Held::FOR_READING);
    EXPECT_TRUE(m_lock->RUnlock());
}

TEST_F(RWLockTest, ReadUnlockByAnotherThreadLeavesItHeld)
{
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_FALSE(OnAnotherThread(&TCRWLock::RUnlock));
    EXPECT_EQ(State(), Held::FOR_READING);
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, UpgradeIsRefusedAtOnceWithTheNumberOfReadLocks)
{
    int attempts = 0;
    const Takeover wrlock(wrlockSeam, [&](pthread_rwlock_t*) {
        ++attempts;
        return EDEADLK;
    });
    EXPECT_TRUE(m_lock->RLock());
    CaptureStderr();
    EXPECT_THAT(AssertionsOf([this] { EXPECT_FALSE(m_lock->WLock()); }),
                ElementsAre("*pCount == 0"));
    EXPECT_EQ(GetCapturedStderr(), "Cannot acquire Wlock, thread have already 1 Rlock(s)\n");

    EXPECT_TRUE(m_lock->RLock());
    EXPECT_TRUE(m_lock->RLock());
    CaptureStderr();
    EXPECT_THAT(AssertionsOf([this] { EXPECT_FALSE(m_lock->WLock()); }),
                ElementsAre("*pCount == 0"));
    EXPECT_EQ(GetCapturedStderr(), "Cannot acquire Wlock, thread have already 3 Rlock(s)\n");

    EXPECT_EQ(attempts, 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(State(), Held::FOR_READING);
        EXPECT_TRUE(m_lock->RUnlock());
    }
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, FormerReaderMayWrite)
{
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_TRUE(m_lock->RUnlock());
    EXPECT_TRUE(m_lock->WLock());
    EXPECT_EQ(State(), Held::FOR_WRITING);
    EXPECT_TRUE(m_lock->WUnlock());
}

TEST_F(RWLockTest, SeveralThreadsMayReadAtOnce)
{
    constexpr int READERS = 4;
    Gate allRead(READERS);
    std::atomic<int> together{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < READERS; ++i) {
        readers.emplace_back([&] {
            EXPECT_TRUE(m_lock->RLock());
            allRead.Pass();
            together += allRead.Wait() ? 1 : 0;
            EXPECT_TRUE(m_lock->RUnlock());
        });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(together, READERS);
    EXPECT_EQ(State(), Held::NOT);
}

TEST_F(RWLockTest, WriterWaitsForTheReader)
{
    EXPECT_TRUE(m_lock->RLock());
    int shared = 1;
    Gate asking;
    const Takeover wrlock(wrlockSeam, [&](pthread_rwlock_t* lock) {
        asking.Pass();
        return wrlockSeam.Real(lock);
    });
    int seen = 0;
    std::thread writer([&] {
        EXPECT_TRUE(m_lock->WLock());
        seen = shared;
        EXPECT_TRUE(m_lock->WUnlock());
    });
    EXPECT_TRUE(asking.Wait());
    shared = 2;
    EXPECT_TRUE(m_lock->RUnlock());
    writer.join();
    EXPECT_EQ(seen, 2);
}

TEST_F(RWLockTest, ReaderWaitsForTheWriter)
{
    EXPECT_TRUE(m_lock->WLock());
    int shared = 1;
    Gate asking;
    const Takeover rdlock(rdlockSeam, [&](pthread_rwlock_t* lock) {
        asking.Pass();
        return rdlockSeam.Real(lock);
    });
    int seen = 0;
    std::thread reader([&] {
        EXPECT_TRUE(m_lock->RLock());
        seen = shared;
        EXPECT_TRUE(m_lock->RUnlock());
    });
    EXPECT_TRUE(asking.Wait());
    shared = 2;
    EXPECT_TRUE(m_lock->WUnlock());
    reader.join();
    EXPECT_EQ(seen, 2);
}

TEST_F(RWLockTest, WritersExcludeEverybody)
{
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 5000;
    int left = 0;
    int right = 0;
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                m_lock->WLock();
                m_lock->WLock();
                ++left;
                m_lock->RLock();
                m_lock->WUnlock();
                ++right;
                m_lock->RUnlock();
                m_lock->WUnlock();
            }
        });
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                m_lock->RLock();
                m_lock->RLock();
                torn += left != right ? 1 : 0;
                m_lock->RUnlock();
                torn += left != right ? 1 : 0;
                m_lock->RUnlock();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(left, THREADS * ROUNDS);
    EXPECT_EQ(right, THREADS * ROUNDS);
    EXPECT_EQ(State(), Held::NOT);
}

using RWLockDeathTest = RWLockTest;

TEST_F(RWLockDeathTest, UpgradeAsserts)
{
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_ASSERT_DEATH(m_lock->WLock(), "*pCount == 0");
    EXPECT_TRUE(m_lock->RUnlock());
}

/// How many read counts the ends of threads have freed, of locks made while CountFreedCounts()
/// stood in for the creation of keys.
std::atomic<int> gFreed{0};
KeyDestructor gFree = nullptr;

int CountFreedCounts(pthread_key_t* key, KeyDestructor destructor)
{
    gFreed = 0;
    gFree = destructor;
    return keyCreateSeam.Real(key, [](void* count) {
        ++gFreed;
        gFree(count);
    });
}

class RWLockCountTest : public ::testing::Test
{
 protected:
    RWLockCountTest()
    {
        const Takeover create(keyCreateSeam, CountFreedCounts);
        m_lock = std::make_unique<TCRWLock>();
    }

    std::unique_ptr<TCRWLock> m_lock;
};

TEST_F(RWLockCountTest, EndOfAThreadFreesItsCount)
{
    std::thread([this] {
        EXPECT_TRUE(m_lock->RLock());
        EXPECT_TRUE(m_lock->RLock());
        EXPECT_TRUE(m_lock->RUnlock());
        EXPECT_TRUE(m_lock->RUnlock());
        EXPECT_TRUE(m_lock->RLock());
        EXPECT_TRUE(m_lock->RUnlock());
        EXPECT_EQ(gFreed, 0);
    }).join();
    EXPECT_EQ(gFreed, 1);
}

TEST_F(RWLockCountTest, EachThreadHasACountOfItsOwn)
{
    constexpr int THREADS = 5;
    for (int i = 0; i < THREADS; ++i) {
        std::thread([this] {
            EXPECT_FALSE(m_lock->RUnlock());
            EXPECT_TRUE(m_lock->RLock());
            EXPECT_TRUE(m_lock->RUnlock());
            EXPECT_FALSE(m_lock->RUnlock());
        }).join();
    }
    EXPECT_EQ(gFreed, THREADS);
}

TEST_F(RWLockCountTest, WriterHasNoCount)
{
    std::thread([this] {
        EXPECT_TRUE(m_lock->WLock());
        EXPECT_TRUE(m_lock->RLock());
        EXPECT_TRUE(m_lock->RUnlock());
        EXPECT_TRUE(m_lock->WUnlock());
        EXPECT_FALSE(m_lock->RUnlock());
    }).join();
    EXPECT_EQ(gFreed, 0);
}

TEST_F(RWLockCountTest, LocksDoNotShareCounts)
{
    TCRWLock other;
    EXPECT_TRUE(m_lock->RLock());
    EXPECT_FALSE(other.RUnlock());
    EXPECT_TRUE(other.WLock());
    EXPECT_TRUE(other.WUnlock());
    EXPECT_TRUE(m_lock->RUnlock());
}

TEST(RWLockAttributesTest, AreTheDefaults)
{
    int kind = -1;
    int shared = -1;
    const Takeover init(rwlockInitSeam,
                        [&](pthread_rwlock_t* made, const pthread_rwlockattr_t* attributes) {
                            pthread_rwlockattr_getkind_np(attributes, &kind);
                            pthread_rwlockattr_getpshared(attributes, &shared);
                            return rwlockInitSeam.Real(made, attributes);
                        });
    const TCRWLock lock;
    EXPECT_EQ(kind, PTHREAD_RWLOCK_DEFAULT_NP);
    EXPECT_EQ(shared, PTHREAD_PROCESS_PRIVATE);
}

TEST(RWLockLayoutTest, FieldsAreInOrder)
{
    constexpr std::size_t KEY_OFFSET = 8;
    constexpr std::size_t LOCK_OFFSET = 16;
    constexpr std::size_t ATTRIBUTES_OFFSET = LOCK_OFFSET + sizeof(pthread_rwlock_t);
    constexpr std::size_t WRITER_OFFSET = ATTRIBUTES_OFFSET + sizeof(pthread_rwlockattr_t);
    constexpr std::size_t DEPTH_OFFSET = WRITER_OFFSET + sizeof(pthread_t);
    static_assert(sizeof(TCRWLock) == DEPTH_OFFSET + 8);
    static_assert(std::has_virtual_destructor_v<TCRWLock>);

    pthread_key_t key = 0;
    std::vector<const void*> inside;
    const Takeover create(keyCreateSeam, [&](pthread_key_t* made, KeyDestructor destructor) {
        const int result = keyCreateSeam.Real(made, destructor);
        key = *made;
        return result;
    });
    const Takeover init(rwlockInitSeam,
                        [&](pthread_rwlock_t* made, const pthread_rwlockattr_t* attributes) {
                            inside = {made, attributes};
                            return rwlockInitSeam.Real(made, attributes);
                        });
    TCRWLock lock;
    const auto* begin = reinterpret_cast<const unsigned char*>(&lock);
    EXPECT_EQ(FieldAt<pthread_key_t>(lock, KEY_OFFSET), key);
    EXPECT_THAT(inside, ElementsAre(begin + LOCK_OFFSET, begin + ATTRIBUTES_OFFSET));
    EXPECT_EQ(FieldAt<pthread_t>(lock, WRITER_OFFSET), 0u);
    EXPECT_EQ(FieldAt<int>(lock, DEPTH_OFFSET), 0);
    lock.WLock();
    lock.WLock();
    EXPECT_EQ(FieldAt<pthread_t>(lock, WRITER_OFFSET), pthread_self());
    EXPECT_EQ(FieldAt<int>(lock, DEPTH_OFFSET), 2);
    lock.WUnlock();
    lock.WUnlock();
    EXPECT_EQ(FieldAt<pthread_t>(lock, WRITER_OFFSET), 0u);
}

} // namespace
