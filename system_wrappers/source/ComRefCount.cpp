#include "ComRefCount.h"

long long CReferOperatMulti::operator++() {
    PattAutoLock<CMyMutex> guard(m_mutex);
    return ++m_count;
}

long long CReferOperatMulti::operator--() {
    PattAutoLock<CMyMutex> guard(m_mutex);
    return --m_count;
}

long long CReferOperatMulti::GetReferCount() const {
    PattAutoLock<CMyMutex> guard(m_mutex);
    return m_count;
}

template class CRefCountBase<CReferOperatSing>;
template class CRefCountBase<CReferOperatMulti>;
