#include "RWLock.h"

#include <cstring>
#include <memory>

#include "Debug.h"

namespace {

/// Asserts that a call of the system succeeded, at the line of the call.
bool Succeeded(const char* call, int ret, int line = __builtin_LINE())
{
    if (ret == 0) {
        return true;
    }
    char text[256];
    _TCAssert("ret == 0", __FILE__, static_cast<unsigned long>(line), "%s = %d, %s\n", call, ret,
              strerror_r(ret, text, sizeof(text)));
    return false;
}

/// Runs at the end of a thread that has read-locked, with that thread's count.
void FreeReadCount(void* count)
{
    delete static_cast<std::uint32_t*>(count);
}

} // namespace

TCRWLock::TCRWLock()
{
    Succeeded("pthread_key_create", pthread_key_create(&m_readCountKey, FreeReadCount));
    Succeeded("pthread_rwlockattr_init", pthread_rwlockattr_init(&m_attributes));
    const int ret = pthread_rwlock_init(&m_lock, &m_attributes);
    if (ret != 0) {
        pthread_rwlockattr_destroy(&m_attributes);
        Succeeded("pthread_rwlock_init", ret);
    }
}

TCRWLock::~TCRWLock()
{
    // The key's destructor runs at the end of a thread only while the key exists. The count of the
    // thread that destroys the lock would be lost with the key.
    FreeReadCount(ReadCount());
    pthread_setspecific(m_readCountKey, nullptr); // or it is freed again should the key stay
    Succeeded("pthread_key_delete", pthread_key_delete(m_readCountKey));
    Succeeded("pthread_rwlock_destroy", pthread_rwlock_destroy(&m_lock));
    Succeeded("pthread_rwlockattr_destroy", pthread_rwlockattr_destroy(&m_attributes));
}

bool TCRWLock::RLock()
{
    if (WrittenByCaller()) {
        return true;
    }
    std::uint32_t* pCount = ReadCount();
    if (pCount != nullptr && *pCount > 0) {
        ++*pCount;
        return true;
    }
    if (pCount == nullptr) {
        // Made before the lock is taken, so that a lack of memory leaves nothing locked.
        pCount = MakeReadCount();
        if (pCount == nullptr) {
            return false;
        }
    }
    if (!Succeeded("pthread_rwlock_rdlock", pthread_rwlock_rdlock(&m_lock))) {
        return false;
    }
    *pCount = 1;
    return true;
}

bool TCRWLock::WLock()
{
    if (WrittenByCaller()) {
        ++m_writeDepth;
        return true;
    }
    const std::uint32_t* pCount = ReadCount();
    if (pCount != nullptr && *pCount > 0) {
        TCASSERT_MSG(*pCount == 0, "Cannot acquire Wlock, thread have already %u Rlock(s)\n",
                     *pCount);
        return false;
    }
    if (!Succeeded("pthread_rwlock_wrlock", pthread_rwlock_wrlock(&m_lock))) {
        return false;
    }
    m_writer.store(pthread_self(), std::memory_order_relaxed);
    m_writeDepth = 1;
    return true;
}

bool TCRWLock::RUnlock()
{
    if (WrittenByCaller()) {
        return true;
    }
    std::uint32_t* pCount = ReadCount();
    if (pCount == nullptr || *pCount == 0) {
        return false;
    }
    if (*pCount > 1) {
        --*pCount;
        return true;
    }
    if (!Succeeded("pthread_rwlock_unlock", pthread_rwlock_unlock(&m_lock))) {
        return false;
    }
    *pCount = 0;
    return true;
}

bool TCRWLock::WUnlock()
{
    if (!WrittenByCaller()) {
        return false;
    }
    if (m_writeDepth < 2) {
        // Cleared first: once the lock is released the next writer stores its own id.
        m_writer.store(NO_WRITER, std::memory_order_relaxed);
        return Succeeded("pthread_rwlock_unlock", pthread_rwlock_unlock(&m_lock));
    }
    --m_writeDepth;
    return true;
}

/// Of the threads that live only the calling one can have stored its own id, so a relaxed read is
/// right about it.
bool TCRWLock::WrittenByCaller() const
{
    return m_writer.load(std::memory_order_relaxed) == pthread_self();
}

std::uint32_t* TCRWLock::ReadCount() const
{
    return static_cast<std::uint32_t*>(pthread_getspecific(m_readCountKey));
}

std::uint32_t* TCRWLock::MakeReadCount()
{
    auto count = std::make_unique<std::uint32_t>(0);
    if (!Succeeded("pthread_setspecific", pthread_setspecific(m_readCountKey, count.get()))) {
        return nullptr;
    }
    return count.release();
}
