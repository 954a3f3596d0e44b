/// @file
/// The umbrella header of libSystemWrappers: it includes every exported header.
/// Include this (or one family header) and link SystemWrappers.
#ifndef SYSTEM_WRAPPERS_SYSTEM_WRAPPERS_H_
#define SYSTEM_WRAPPERS_SYSTEM_WRAPPERS_H_

#include "ComBase.h"
#include "ComRefCount.h"
#include "ComSocket.h"
#include "ComEventQueue.h"
#include "ComTaskBase.h"
#include "ComReactor.h"
#include "ComTaskThread.h"
#include "ComThreadManger.h"
#include "ComTimerQueue.h"
#include "ComTimerWrapper.h"
#include "mtrace.h"
#include "mtrace_shared_mem.h"
#include "ComMessageBlock.h"
#include "ZemFile.h"
#include "webrtc_cpu.h"
#include "webrtc_trace.h"
#include "tick_util.h"
#include "critical_section_wrapper.h"
#include "condition_variable_wrapper.h"
#include "event_wrapper.h"
#include "thread_wrapper.h"
#include "rw_lock_wrapper.h"
#include "atomic32.h"
#include "list_wrapper.h"
#include "map_wrapper.h"
#include "module.h"
#include "process_thread.h"
#include "file_wrapper.h"
#include "aligned_malloc.h"
#include "sort.h"

#endif  // SYSTEM_WRAPPERS_SYSTEM_WRAPPERS_H_
