// Intrusive reference counting: the object carries its counter and destroys
// itself on the release that brings the count to zero.
#ifndef SYSTEM_WRAPPERS_COM_REF_COUNT_H_
#define SYSTEM_WRAPPERS_COM_REF_COUNT_H_

#include "ComBase.h"
#include "sw_export.h"

// Counter policy for objects owned by one thread (or guarded by an outer lock).
class SW_EXPORT CReferOperatSing {
public:
    CReferOperatSing() : m_count(0) {}
    long long operator++() { return ++m_count; }
    long long operator--() { return --m_count; }
    long long GetReferCount() const { return m_count; }

private:
    long long m_count;
};

// Counter policy for objects shared between threads: each step is taken
// under the policy's own mutex.
class SW_EXPORT CReferOperatMulti {
public:
    CReferOperatMulti() : m_count(0) {}
    long long operator++();
    long long operator--();
    long long GetReferCount() const;

private:
    mutable CMyMutex m_mutex;
    long long m_count;
};

template <class Policy>
class CRefCountBase {
public:
    CRefCountBase() = default;
    virtual ~CRefCountBase() = default;

    virtual long long AddReferCount() { return ++m_policy; }

    // Returns the new count; 0 means the object is gone and must not be touched.
    // With the shared policy, destruction runs outside the counter's lock.
    virtual long long ReleaseReferCount() {
        long long count = --m_policy;
        if (count == 0) DestroyThis();
        return count;
    }

    virtual long long GetReferCount() const { return m_policy.GetReferCount(); }

    // Overridden by objects that give their memory back in their own way.
    virtual void DestroyThis() { delete this; }

private:
    Policy m_policy;
};

// Takes a reference on every pointer it holds and drops it when it lets go.
// Not thread-safe itself: two threads assigning one smart pointer need a lock.
template <class T>
class CRefCountAutoPtr {
public:
    CRefCountAutoPtr(T* aPtr = nullptr) : m_ptr(aPtr) {  // NOLINT: implicit by design
        if (m_ptr) m_ptr->AddReferCount();
    }
    // A copy is one more owner, so it takes its own reference.
    CRefCountAutoPtr(const CRefCountAutoPtr& aOther) : CRefCountAutoPtr(aOther.m_ptr) {}
    ~CRefCountAutoPtr() {
        if (m_ptr) {
            m_ptr->ReleaseReferCount();
            m_ptr = nullptr;
        }
    }

    // The new reference is taken before the old one is dropped, so assigning
    // an object that the old one keeps alive (by another route) is safe.
    CRefCountAutoPtr& AssignVal(T* aPtr) {
        if (aPtr == m_ptr) return *this;
        if (aPtr) aPtr->AddReferCount();
        if (m_ptr) m_ptr->ReleaseReferCount();
        m_ptr = aPtr;
        return *this;
    }
    CRefCountAutoPtr& operator=(T* aPtr) { return AssignVal(aPtr); }
    CRefCountAutoPtr& operator=(const CRefCountAutoPtr& aOther) { return AssignVal(aOther.m_ptr); }

    T* operator->() const { return m_ptr; }
    T* GetPtr() const { return m_ptr; }

private:
    T* m_ptr;
};

// Instantiated once in the library, so users share one copy of the code.
extern template class SW_EXPORT CRefCountBase<CReferOperatSing>;
extern template class SW_EXPORT CRefCountBase<CReferOperatMulti>;

#endif  // SYSTEM_WRAPPERS_COM_REF_COUNT_H_
