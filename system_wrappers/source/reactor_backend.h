// Internal: how a reactor waits for its handles. ComNetReactor keeps the handle
// table and the order of a turn (stop check, due timers, one wait, the ready
// handles); a back end watches the table's descriptors with one facility of
// the system and calls the ready handlers. One source per back end:
// com_reactor_select.cpp and com_reactor_epoll.cpp; another system's facility
// (kqueue, say) would be one more.
#ifndef SYSTEM_WRAPPERS_SOURCE_REACTOR_BACKEND_H_
#define SYSTEM_WRAPPERS_SOURCE_REACTOR_BACKEND_H_

#include <memory>

#include "ComBase.h"
#include "ComReactor.h"

namespace sw {

// Mask bits 1 and 8 both ask for reading, bit 2 for writing; others are
// carried in the table but watch nothing.
inline bool WantsRead(long aMask) {
    return (aMask & (ComReactorBase::READ_MASK | ComReactorBase::READ_MASK_2)) != 0;
}
inline bool WantsWrite(long aMask) {
    return (aMask & ComReactorBase::WRITE_MASK) != 0;
}

class ReactorBackend {
public:
    virtual ~ReactorBackend() = default;
    // ComNetReactor::BACKEND_SELECT or BACKEND_EPOLL.
    virtual int kind() const = 0;
    // aHandle's table entry was added or replaced; aMask is its mask now.
    virtual void watch(int aHandle, long aMask) = 0;
    // aHandle's entry left the table (also called for one that was not there).
    virtual void unwatch(int aHandle) = 0;
    // One wait of the loop: until a watched handle is ready or aTimeout (a
    // duration; null: no limit) has passed, then the ready handlers in
    // ascending descriptor order, from a copy of their entries taken before
    // the first call. 0; -2 when nothing is watched, -1 when the wait failed,
    // each traced as the reactor's run_loop.
    virtual int wait(const ComTimeValueType* aTimeout) = 0;
};

// Never null.
std::unique_ptr<ReactorBackend> MakeSelectBackend(ComNetReactor& aReactor);
// Null, after one error line, when the system has no epoll or refuses an
// instance.
std::unique_ptr<ReactorBackend> MakeEpollBackend(ComNetReactor& aReactor);
// Whether this build has epoll at all.
bool HaveEpoll();

}  // namespace sw

#endif  // SYSTEM_WRAPPERS_SOURCE_REACTOR_BACKEND_H_
