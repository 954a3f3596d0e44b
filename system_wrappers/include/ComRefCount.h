/// @file
/// Intrusive reference counting: the object carries its counter and destroys
/// itself on the release that brings the count to zero.
#ifndef SYSTEM_WRAPPERS_COM_REF_COUNT_H_
#define SYSTEM_WRAPPERS_COM_REF_COUNT_H_

#include "ComBase.h"
#include "sw_export.h"

/// Counter policy for objects used by one thread at a time (or guarded by an
/// outer lock): a plain counter, no locking.
class SW_EXPORT CReferOperatSing {
public:
    /// A count of 0.
    CReferOperatSing() : m_count(0) {}
    /// Adds one; returns the new count.
    long long operator++() { return ++m_count; }
    /// Subtracts one; returns the new count (it may go below 0).
    long long operator--() { return --m_count; }
    /// The current count.
    long long GetReferCount() const { return m_count; }

private:
    long long m_count;
};

/// Counter policy for objects shared between threads: each step is taken
/// under the policy's own mutex, so any thread may count.
class SW_EXPORT CReferOperatMulti {
public:
    /// A count of 0.
    CReferOperatMulti() : m_count(0) {}
    /// Adds one under the lock; returns the new count. Any thread.
    long long operator++();
    /// Subtracts one under the lock; returns the new count (it may go below
    /// 0). Any thread.
    long long operator--();
    /// The count at the moment of the call; another thread may change it
    /// right after. Any thread.
    long long GetReferCount() const;

private:
    mutable CMyMutex m_mutex;
    long long m_count;
};

/// Base of an intrusively counted object. A new object has a count of 0: the
/// first reference (a CRefCountAutoPtr, or AddReferCount()) makes it 1, and
/// the release that brings it back to 0 destroys the object through
/// DestroyThis(), on the releasing thread. Policy chooses the counter:
/// CReferOperatMulti lets any thread add and release, CReferOperatSing needs
/// one thread or an outer lock. Nothing here traces or fails.
template <class Policy>
class CRefCountBase {
public:
    /// A count of 0: nobody holds a reference yet.
    CRefCountBase() = default;
    /// Virtual, so that DestroyThis() destroys the whole object.
    virtual ~CRefCountBase() = default;

    /// Takes one reference; returns the new count.
    virtual long long AddReferCount() { return ++m_policy; }

    /// Drops one reference and returns the new count. At 0 the object has
    /// been destroyed (DestroyThis() has run, on this thread) and must not be
    /// touched again; with the shared policy that destruction runs outside
    /// the counter's lock. Releasing more than was taken drives the count
    /// below 0 without destroying anything.
    virtual long long ReleaseReferCount() {
        long long count = --m_policy;
        if (count == 0) DestroyThis();
        return count;
    }

    /// The current count (0 for a new object).
    virtual long long GetReferCount() const { return m_policy.GetReferCount(); }

    /// Called by the release that reaches 0; by default deletes the object,
    /// so objects counted this way are made with new. Overridden by objects
    /// that give their memory back in their own way. Not for callers.
    virtual void DestroyThis() { delete this; }

private:
    Policy m_policy;
};

/// Smart pointer for counted objects: takes a reference on every non-null
/// pointer it holds and drops it when it lets go, so the last one to let go
/// destroys the object. T needs AddReferCount() and ReleaseReferCount(). Not
/// thread-safe itself: two threads using one smart pointer need a lock, while
/// separate smart pointers to one object may live on different threads when
/// the object's counter is CReferOperatMulti.
template <class T>
class CRefCountAutoPtr {
public:
    /// Holds aPtr (null allowed) and takes a reference on it.
    CRefCountAutoPtr(T* aPtr = nullptr) : m_ptr(aPtr) {  // NOLINT: implicit by design
        if (m_ptr) m_ptr->AddReferCount();
    }
    /// A copy is one more owner, so it takes its own reference.
    CRefCountAutoPtr(const CRefCountAutoPtr& aOther) : CRefCountAutoPtr(aOther.m_ptr) {}
    /// Drops the reference held, which may destroy the object.
    ~CRefCountAutoPtr() {
        if (m_ptr) {
            m_ptr->ReleaseReferCount();
            m_ptr = nullptr;
        }
    }

    /// Holds aPtr instead of the current pointer and returns this smart
    /// pointer. Nothing changes when aPtr is the pointer already held.
    /// Otherwise the new reference is taken before the old one is dropped, so
    /// assigning an object that the old one keeps alive (by another route) is
    /// safe; dropping the old one may destroy it.
    CRefCountAutoPtr& AssignVal(T* aPtr) {
        if (aPtr == m_ptr) return *this;
        if (aPtr) aPtr->AddReferCount();
        if (m_ptr) m_ptr->ReleaseReferCount();
        m_ptr = aPtr;
        return *this;
    }
    /// AssignVal(aPtr).
    CRefCountAutoPtr& operator=(T* aPtr) { return AssignVal(aPtr); }
    /// AssignVal() with the pointer aOther holds: both then share the object.
    CRefCountAutoPtr& operator=(const CRefCountAutoPtr& aOther) { return AssignVal(aOther.m_ptr); }

    /// The held pointer, not tested for null.
    T* operator->() const { return m_ptr; }
    /// The held pointer (may be null), borrowed: no reference is taken, so it
    /// is valid only while a reference is held.
    T* GetPtr() const { return m_ptr; }

private:
    T* m_ptr;
};

// Instantiated once in the library, so users share one copy of the code.
extern template class SW_EXPORT CRefCountBase<CReferOperatSing>;
extern template class SW_EXPORT CRefCountBase<CReferOperatMulti>;

#endif  // SYSTEM_WRAPPERS_COM_REF_COUNT_H_
