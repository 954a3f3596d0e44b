// The demo's media mode: streams on task threads build a numbered frame on
// every tick of a periodic timer, a sender reactor thread puts each frame on
// its stream's socket (a UDP datagram, or a TCP connection's byte stream), and
// a receiver reactor thread checks every frame and measures how late the
// timers fired and how long the frames took.
#ifndef SW_DEMO_MEDIA_H_
#define SW_DEMO_MEDIA_H_

#include <string>

#include "demo_options.h"

namespace demo {

// Runs the media mode, printing progress once a second and a summary at the
// end. aNote names the back end for the first line. Returns the exit code: 0
// when every frame sent arrived intact, once and in order, else 1.
int RunMedia(const Options& aOptions, const std::string& aNote);

}  // namespace demo

#endif  // SW_DEMO_MEDIA_H_
