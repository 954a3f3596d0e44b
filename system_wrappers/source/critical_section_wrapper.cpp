#include "critical_section_wrapper.h"

#include <pthread.h>

#include <new>

namespace webrtc {

namespace {

class CriticalSectionPosix : public CriticalSectionWrapper {
public:
    ~CriticalSectionPosix() override { pthread_mutex_destroy(&m_mutex); }
    void Enter() override { pthread_mutex_lock(&m_mutex); }
    void Leave() override { pthread_mutex_unlock(&m_mutex); }

private:
    // The static initialiser cannot fail, so construction needs no result.
    pthread_mutex_t m_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

}  // namespace

CriticalSectionWrapper* CriticalSectionWrapper::CreateCriticalSection() {
    return new (std::nothrow) CriticalSectionPosix();
}

}  // namespace webrtc
