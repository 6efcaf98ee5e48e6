#pragma once

#include <mutex>

// What clang's thread-safety analysis is told of locks; nothing for other compilers.
#ifdef __clang__
#define ORLINTH_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define ORLINTH_THREAD_ATTRIBUTE(attribute)
#endif

/// The class is a lock, of this kind in the analysis' messages.
#define ORLINTH_CAPABILITY(kind) ORLINTH_THREAD_ATTRIBUTE(capability(kind))
/// The class holds a lock for as long as it lives.
#define ORLINTH_SCOPED_CAPABILITY ORLINTH_THREAD_ATTRIBUTE(scoped_lockable)
/// The member may be touched only while this lock is held.
#define ORLINTH_GUARDED_BY(lock) ORLINTH_THREAD_ATTRIBUTE(guarded_by(lock))
/// The same for what the member points to.
#define ORLINTH_PT_GUARDED_BY(lock) ORLINTH_THREAD_ATTRIBUTE(pt_guarded_by(lock))
/// The function may be called only while these locks are held.
#define ORLINTH_REQUIRES(...) ORLINTH_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// The function may be called only while these locks are not held.
#define ORLINTH_EXCLUDES(...) ORLINTH_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
/// The function takes the locks, or its object if none is named; or lets go of them.
#define ORLINTH_ACQUIRE(...) ORLINTH_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ORLINTH_RELEASE(...) ORLINTH_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
/// From the call on the analysis takes the lock for held.
#define ORLINTH_ASSERT_CAPABILITY(...) ORLINTH_THREAD_ATTRIBUTE(assert_capability(__VA_ARGS__))

namespace orlinth {

/// A std::mutex that clang's thread-safety analysis knows: a build with clang fails where a member marked
/// ORLINTH_GUARDED_BY is touched without it.
///
/// Held in a plain function, and never across an await. Constructors and destructors are not analysed.
class ORLINTH_CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex() noexcept = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ORLINTH_ACQUIRE() { mutex_.lock(); }
    void unlock() ORLINTH_RELEASE() { mutex_.unlock(); }
    /// Says to the analysis, which looks at each lambda by itself, that whoever calls the lambda holds the mutex.
    void assertHeld() const noexcept ORLINTH_ASSERT_CAPABILITY(this) {}

private:
    std::mutex mutex_;
};

/// Holds a mutex for as long as it lives.
class ORLINTH_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ORLINTH_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() ORLINTH_RELEASE() { mutex_.unlock(); }

private:
    Mutex& mutex_;
};

} // namespace orlinth
