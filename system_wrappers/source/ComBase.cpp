#include "ComBase.h"

// Both constants are constant-initialised (constexpr constructor), so they hold
// their values before any static constructor of the library or its host runs.
const ComTimeValueType ComTimeValueType::s_tvZero(0, 0);
const ComTimeValueType ComTimeValueType::s_tvMax(2147483647, 999999);

ComTimeValueType ComTimeValueType::GetTimeOfDay() {
    timeval tv;
    ::gettimeofday(&tv, nullptr);
    return ComTimeValueType(tv);
}

CMyMutex::CMyMutex() {
#ifdef PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP
    // The same recursive mutex without four attribute calls: message blocks,
    // events and queues each construct one.
    const pthread_mutex_t recursive = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    m_mutex = recursive;
#else
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
#endif
}

CMyMutex::~CMyMutex() {
    pthread_mutex_destroy(&m_mutex);
}
