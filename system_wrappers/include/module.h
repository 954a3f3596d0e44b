// Work that a ProcessThread serves when it is due.
#ifndef SYSTEM_WRAPPERS_MODULE_H_
#define SYSTEM_WRAPPERS_MODULE_H_

#include <cstdint>

#include "sw_export.h"

namespace webrtc {

class SW_EXPORT Module {
public:
    virtual ~Module() {}
    // Milliseconds until the module wants Process; 0 or less means now.
    virtual int32_t TimeUntilNextProcess() = 0;
    virtual int32_t Process() = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_MODULE_H_
