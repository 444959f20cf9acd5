// Recursive POSIX mutex used for the slot locks and the device lock.
#pragma once
#include <pthread.h>

struct S_MUTEX_UNIX {
    pthread_mutex_t mutex;
    pthread_mutexattr_t attr;
};

// Initialises a recursive mutex; returns 0 or the first failing pthread code.
int InitCriSecNKR(S_MUTEX_UNIX* m);
// Destroys the mutex, then its attribute object.
int DelCriSecNKR(S_MUTEX_UNIX* m);

// RAII holder for an S_MUTEX_UNIX, so every early return releases it.
class CriSecLock {
public:
    explicit CriSecLock(S_MUTEX_UNIX& m) : m_(m) { pthread_mutex_lock(&m_.mutex); }
    ~CriSecLock() { pthread_mutex_unlock(&m_.mutex); }
    CriSecLock(const CriSecLock&) = delete;
    CriSecLock& operator=(const CriSecLock&) = delete;

private:
    S_MUTEX_UNIX& m_;
};
