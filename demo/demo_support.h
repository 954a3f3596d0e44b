// Pieces shared by the demo's echo service, its clients and main: trace
// lines through the library's trace facility, two socket helpers, and running
// a function on another library thread.
#ifndef SW_DEMO_DEMO_SUPPORT_H_
#define SW_DEMO_DEMO_SUPPORT_H_

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>

#include "demo_options.h"
#include "system_wrappers.h"

namespace demo {

// Hands a demo line to the trace facility, which passes it to the host
// callback like every line of the library.
inline void Log(MTRACE_LEVEL_TYPE aLevel, const CMyTextFormat& aText) {
    unsigned int length = 0;
    const char* content = aText.GetContent(length);
    CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, aLevel, content, length);
}

#define DEMO_LOG(aLevel, aStream)   \
    do {                            \
        CMyTextFormat text_;        \
        text_ << aStream;           \
        ::demo::Log(aLevel, text_); \
    } while (0)

// True when aFd is ready for aEvent now. The library traces a would-block send
// or accept as a failure, so the demo only calls them when they will not block.
inline bool Ready(int aFd, short aEvent) {
    pollfd fd = {aFd, aEvent, 0};
    return poll(&fd, 1, 0) == 1 && (fd.revents & aEvent) != 0;
}
inline bool Writable(int aFd) {
    return Ready(aFd, POLLOUT);
}
inline bool Readable(int aFd) {
    return Ready(aFd, POLLIN);
}

inline void NoDelay(int aFd) {
    // Request and echo are one write each; Nagle would hold back the tail.
    const int on = 1;
    setsockopt(aFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

// Runs a function on the thread that owns the queue (SendEvent from another
// thread waits until it has run).
template <class F>
class CallEvent : public IEvent {
public:
    explicit CallEvent(F aCall) : m_call(aCall) {}
    int OnEventFire() override { return m_call(); }

private:
    F m_call;
};

template <class F>
int RunOn(IEventQueue* aQueue, F aCall) {
    return aQueue->SendEvent(new CallEvent<F>(aCall));
}

}  // namespace demo

#endif  // SW_DEMO_DEMO_SUPPORT_H_
