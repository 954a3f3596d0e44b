// The select() back end: at most 1024 watched entries a turn, descriptors
// below FD_SETSIZE only.
#include <sys/select.h>
#include <sys/time.h>

#include <vector>

#include "monotonic.h"
#include "reactor_backend.h"
#include "sw_trace.h"

using sw::Addr;

namespace {

const char kFile[] = "com_reactor";

// select() watches at most this many entries per turn.
constexpr int kMaxWatched = 1024;

// Only descriptors inside the fd_set may be put into one or tested: anything
// else would write outside the set.
bool FitsFdSet(int aHandle) {
    return aHandle >= 0 && aHandle < FD_SETSIZE;
}

class SelectBackend final : public sw::ReactorBackend {
public:
    explicit SelectBackend(ComNetReactor& aReactor) : m_reactor(aReactor) {}

    int kind() const override { return ComNetReactor::BACKEND_SELECT; }

    void watch(int aHandle, long aMask) override {
        if ((sw::WantsRead(aMask) || sw::WantsWrite(aMask)) && !FitsFdSet(aHandle)) {
            // Registered all the same; the loop only reminds of it once a second.
            SW_TRACE_ERROR("[COM]:register_handle, handle out of fd_set range, handle="
                           << aHandle << ", limit=" << FD_SETSIZE << ", this=" << Addr(&m_reactor));
        }
    }

    // The sets are built afresh every turn from the table.
    void unwatch(int) override {}

    int wait(const ComTimeValueType* aTimeout) override {
        timeval timeout = {};
        if (aTimeout != nullptr && *aTimeout > ComTimeValueType::s_tvZero) {
            timeout.tv_sec = aTimeout->GetSec();
            timeout.tv_usec = aTimeout->GetUsec();
        }
        fd_set readSet;
        fd_set writeSet;
        int maxHandle = 0;
        if (m_reactor.build_socket_set(readSet, writeSet, maxHandle) == 0) {
            SW_TRACE_ERROR("[COM]:run_loop, no sockets, this=" << Addr(&m_reactor));
            return -2;
        }
        const int ready = select(maxHandle, &readSet, &writeSet, nullptr,
                                 aTimeout != nullptr ? &timeout : nullptr);
        if (ready == -1) {
            SW_TRACE_ERROR("[COM]:run_loop, select failed, this=" << Addr(&m_reactor));
            return -1;
        }
        if (ready > 0) {
            m_reactor.process_handle(static_cast<unsigned long>(ready), readSet, writeSet);
        }
        return 0;
    }

private:
    ComNetReactor& m_reactor;
};

}  // namespace

std::unique_ptr<sw::ReactorBackend> sw::MakeSelectBackend(ComNetReactor& aReactor) {
    return std::make_unique<SelectBackend>(aReactor);
}

int ComNetReactor::build_socket_set(fd_set& aReadSet, fd_set& aWriteSet, int& aMaxHandle) {
    FD_ZERO(&aReadSet);
    FD_ZERO(&aWriteSet);
    int count = 0;
    int maxHandle = 0;
    int outOfRange = 0;
    int firstOutOfRange = 0;
    auto it = m_Handles.begin();
    for (; it != m_Handles.end() && count < kMaxWatched; ++it) {
        const int handle = it->first;
        const long mask = it->second.m_lMask;
        const bool read = sw::WantsRead(mask);
        const bool write = sw::WantsWrite(mask);
        if (!read && !write) {
            continue;
        }
        if (!FitsFdSet(handle)) {
            if (outOfRange++ == 0) {
                firstOutOfRange = handle;
            }
            continue;
        }
        if (read) {
            FD_SET(handle, &aReadSet);
        }
        if (write) {
            FD_SET(handle, &aWriteSet);
        }
        if (handle > maxHandle) {
            maxHandle = handle;
        }
        ++count;
    }
    // One line however many there are, and at most one a second while they
    // stay registered: the loop may turn thousands of times a second.
    const int64_t now = outOfRange != 0 ? webrtc::MonotonicNowNs() : 0;
    if (outOfRange != 0 && now >= m_NextRangeTraceNs) {
        m_NextRangeTraceNs = now + webrtc::kNsPerSecond;
        SW_TRACE_ERROR("[COM]:build_socket_set, handle out of fd_set range, handle="
                       << firstOutOfRange << ", skipped=" << outOfRange << ", limit=" << FD_SETSIZE
                       << ", this=" << Addr(this));
    }
    if (it != m_Handles.end()) {
        SW_TRACE_ERROR("[COM]:build_socket_set, too many sockets, this=" << Addr(this));
    }
    if (count != 0) {
        aMaxHandle = maxHandle + 1;
    }
    return count;
}

int ComNetReactor::process_handle(unsigned long aCount, fd_set& aReadSet, fd_set& aWriteSet) {
    struct Ready {
        int handle;
        ComReactorBase* handler;
    };
    // Handlers may register and unregister during the callbacks, so the walk
    // runs over a snapshot. Entries in neither set would be skipped anyway.
    std::vector<Ready> ready;
    ready.reserve(aCount);
    for (const auto& entry : m_Handles) {
        const int handle = entry.first;
        if (FitsFdSet(handle) && (FD_ISSET(handle, &aReadSet) || FD_ISSET(handle, &aWriteSet))) {
            ready.push_back(Ready{handle, entry.second.m_pHandler});
        }
    }
    for (const Ready& entry : ready) {
        if (aCount == 0) {
            break;
        }
        if (FD_ISSET(entry.handle, &aReadSet)) {
            --aCount;
            entry.handler->on_input();
        }
        if (FD_ISSET(entry.handle, &aWriteSet)) {
            if (!SW_ASSERT_LINE(__LINE__, aCount != 0, "fd_num != 0")) {
                return 0;
            }
            --aCount;
            entry.handler->on_output();
        }
    }
    return 0;
}
