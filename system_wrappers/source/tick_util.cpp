#include "tick_util.h"

#include <sys/time.h>

namespace webrtc {

TickTime TickTime::Now() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return TickTime(static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec);
}

int64_t TickTime::MillisecondTimestamp() {
    return Now().Ticks() / 1000;
}

int64_t TickTime::MicrosecondTimestamp() {
    return Now().Ticks();
}

}  // namespace webrtc
