// The epoll back end: level-triggered, no limit on the number of handles or
// on descriptor values beyond what the process may open.
#include "reactor_backend.h"

#ifdef __linux__

#include <errno.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "sw_trace.h"

using sw::Addr;

namespace {

uint32_t EventsFor(long aMask) {
    return (sw::WantsRead(aMask) ? EPOLLIN : 0u) | (sw::WantsWrite(aMask) ? EPOLLOUT : 0u);
}

class EpollBackend final : public sw::ReactorBackend {
public:
    EpollBackend(ComNetReactor& aReactor, int aEpoll) : m_reactor(aReactor), m_epoll(aEpoll) {}
    ~EpollBackend() override { ::close(m_epoll); }

    int kind() const override { return ComNetReactor::BACKEND_EPOLL; }

    void watch(int aHandle, long aMask) override {
        const uint32_t events = EventsFor(aMask);
        if (events == 0) {
            unwatch(aHandle);
            return;
        }
        // An always-ready entry is asked again: its number may now be a socket.
        auto it = m_watched.find(aHandle);
        const bool inSet = it != m_watched.end() && !it->second.alwaysReady;
        if (it != m_watched.end() && !inSet) {
            --m_alwaysReady;
            m_watched.erase(it);
        }
        epoll_event change = {};
        change.events = events;
        change.data.fd = aHandle;
        int rv = epoll_ctl(m_epoll, inSet ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, aHandle, &change);
        // A descriptor closed without unregistering left the set on its own,
        // and its number may come back: whichever of add and modify fits.
        if (rv == -1 && errno == EEXIST) {
            rv = epoll_ctl(m_epoll, EPOLL_CTL_MOD, aHandle, &change);
        } else if (rv == -1 && errno == ENOENT) {
            rv = epoll_ctl(m_epoll, EPOLL_CTL_ADD, aHandle, &change);
        }
        if (rv == -1 && errno == EPERM) {
            // Regular files and directories are always ready to select(), and
            // so they are here.
            unwatch(aHandle);
            m_watched[aHandle] = Watch{events, true};
            ++m_alwaysReady;
            return;
        }
        if (rv == -1) {
            // Registered all the same, as select() would take it, but never ready.
            SW_TRACE_ERROR("[COM]:register_handle, epoll_ctl failed, handle="
                           << aHandle << ", err=" << errno << ", this=" << Addr(&m_reactor));
            unwatch(aHandle);
            return;
        }
        m_watched[aHandle] = Watch{events, false};
    }

    void unwatch(int aHandle) override {
        auto it = m_watched.find(aHandle);
        if (it == m_watched.end()) {
            return;
        }
        if (it->second.alwaysReady) {
            --m_alwaysReady;
        } else {
            // Fails only for a descriptor already closed, which left the set.
            epoll_ctl(m_epoll, EPOLL_CTL_DEL, aHandle, nullptr);
        }
        m_watched.erase(it);
    }

    int wait(const ComTimeValueType* aTimeout) override {
        if (m_watched.empty()) {
            SW_TRACE_ERROR("[COM]:run_loop, no sockets, this=" << Addr(&m_reactor));
            return -2;
        }
        // Room for every watched handle, so that one wait sees all that are
        // ready and calls them in one ascending pass.
        if (m_ready.size() < m_watched.size()) {
            m_ready.resize(m_watched.size());
        }
        const int count = Wait(m_alwaysReady != 0 ? &ComTimeValueType::s_tvZero : aTimeout);
        if (count == -1) {
            SW_TRACE_ERROR("[COM]:run_loop, epoll_wait failed, err=" << errno
                                                                    << ", this=" << Addr(&m_reactor));
            return -1;
        }
        Dispatch(count);
        return 0;
    }

private:
    struct Watch {
        uint32_t events;
        bool alwaysReady;  // refused by epoll (a regular file): reported every wait
    };

    struct Ready {
        int handle;
        ComReactorBase* handler;
        bool input;
        bool output;
        bool operator<(const Ready& aOther) const { return handle < aOther.handle; }
    };

    int Wait(const ComTimeValueType* aTimeout) {
        const int capacity = static_cast<int>(m_ready.size());
#ifdef SW_HAVE_EPOLL_PWAIT2
        // Microseconds, as the timers have them; epoll_wait would round to ms.
        if (m_havePwait2) {
            timespec timeout = {};
            if (aTimeout != nullptr && *aTimeout > ComTimeValueType::s_tvZero) {
                timeout.tv_sec = aTimeout->GetSec();
                timeout.tv_nsec = aTimeout->GetUsec() * 1000L;
            }
            const int count = epoll_pwait2(m_epoll, m_ready.data(), capacity,
                                           aTimeout != nullptr ? &timeout : nullptr, nullptr);
            if (count != -1 || errno != ENOSYS) {
                return count;
            }
            m_havePwait2 = false;  // an older kernel: round up to milliseconds
        }
#endif
        int ms = -1;
        if (aTimeout != nullptr) {
            const int64_t us = static_cast<int64_t>(aTimeout->GetSec()) * 1000000 +
                               (*aTimeout > ComTimeValueType::s_tvZero ? aTimeout->GetUsec() : 0);
            ms = us <= 0 ? 0 : static_cast<int>(std::min<int64_t>((us + 999) / 1000, INT32_MAX));
        }
        return epoll_wait(m_epoll, m_ready.data(), capacity, ms);
    }

    // Calls the ready handlers as select() would report them: a hang-up or an
    // error counts as ready for whatever the handle watches.
    void Dispatch(int aCount) {
        std::vector<Ready> ready;
        ready.reserve(static_cast<size_t>(aCount) + m_alwaysReady);
        const uint32_t anyState = EPOLLHUP | EPOLLERR;
        for (int i = 0; i < aCount; ++i) {
            Add(ready, m_ready[i].data.fd, m_ready[i].events & (EPOLLIN | anyState),
                m_ready[i].events & (EPOLLOUT | anyState));
        }
        if (m_alwaysReady != 0) {
            for (const auto& watched : m_watched) {
                if (watched.second.alwaysReady) {
                    Add(ready, watched.first, true, true);
                }
            }
        }
        std::sort(ready.begin(), ready.end());
        // From the copy: a handler unregistered by another's callback in this
        // pass may still be called, as with select().
        for (const Ready& entry : ready) {
            if (entry.input) {
                entry.handler->on_input();
            }
            if (entry.output) {
                entry.handler->on_output();
            }
        }
    }

    void Add(std::vector<Ready>& aReady, int aHandle, bool aInput, bool aOutput) {
        auto entry = m_reactor.m_Handles.find(aHandle);
        if (entry == m_reactor.m_Handles.end()) {
            return;
        }
        const long mask = entry->second.m_lMask;
        aInput = aInput && sw::WantsRead(mask);
        aOutput = aOutput && sw::WantsWrite(mask);
        if (aInput || aOutput) {
            aReady.push_back(Ready{aHandle, entry->second.m_pHandler, aInput, aOutput});
        }
    }

    ComNetReactor& m_reactor;
    const int m_epoll;
    std::unordered_map<int, Watch> m_watched;
    size_t m_alwaysReady = 0;
    std::vector<epoll_event> m_ready = std::vector<epoll_event>(64);
#ifdef SW_HAVE_EPOLL_PWAIT2
    bool m_havePwait2 = true;
#endif
};

}  // namespace

bool sw::HaveEpoll() {
    return true;
}

std::unique_ptr<sw::ReactorBackend> sw::MakeEpollBackend(ComNetReactor& aReactor) {
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    if (epoll == -1) {
        SW_TRACE_ERROR("[COM]:ComNetReactor, epoll_create1 failed, running on select, err="
                       << errno << ", this=" << Addr(&aReactor));
        return nullptr;
    }
    return std::make_unique<EpollBackend>(aReactor, epoll);
}

#else  // no epoll on this system

bool sw::HaveEpoll() {
    return false;
}

std::unique_ptr<sw::ReactorBackend> sw::MakeEpollBackend(ComNetReactor&) {
    return nullptr;
}

#endif
