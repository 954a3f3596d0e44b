// Internal helpers shared by every source of the library to write its trace
// lines: one CMyTextFormat on the stack, written to the host callback.
#ifndef SYSTEM_WRAPPERS_SOURCE_SW_TRACE_H_
#define SYSTEM_WRAPPERS_SOURCE_SW_TRACE_H_

#include "mtrace.h"

namespace sw {

inline void WriteTrace(MTRACE_LEVEL_TYPE aLevel, const CMyTextFormat& aText) {
    unsigned int length = 0;
    const char* text = aText.GetContent(length);
    CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, aLevel, text, length);
}

// False once the trace exists with no host callback installed: the library's
// lines go only there, so they are not even built. Before the trace exists the
// line goes ahead, so that the first one creates it as it always has.
inline bool TraceHeard() {
    const CMyTraceImpl_* impl = CMyTraceImpl_::s_LogInstance.load(std::memory_order_acquire);
    return impl == nullptr || impl->m_logCallback.load(std::memory_order_acquire) != nullptr;
}

// Pointers in trace lines print as %p prints them: ", this=" << Addr(this).
inline const void* Addr(const void* aObject) {
    return aObject;
}

// Writes "system_wrappers/source/<aFile>: <aLine>, assert failed, <aExpr>" at
// the error level. Assertions never stop the process.
void TraceAssert(const char* aFile, int aLine, const char* aExpr);

}  // namespace sw

// SW_TRACE(MTRACE_LEVEL_ERROR, "[COM]:" << "Foo::Bar, failed, err=" << err);
#define SW_TRACE(aLevel, aStream)                   \
    do {                                            \
        if (::sw::TraceHeard()) {                   \
            CMyTextFormat swTraceText_;             \
            swTraceText_ << aStream;                \
            ::sw::WriteTrace(aLevel, swTraceText_); \
        }                                           \
    } while (0)

#define SW_TRACE_ERROR(aStream) SW_TRACE(MTRACE_LEVEL_ERROR, aStream)
#define SW_TRACE_WARNING(aStream) SW_TRACE(MTRACE_LEVEL_WARNING, aStream)
#define SW_TRACE_INFO(aStream) SW_TRACE(MTRACE_LEVEL_INFO, aStream)

// Evaluates to aCond; when it is false, writes the assertion line identified by
// the source stem aFile and aLine, with aText as the asserted expression.
#define SW_ASSERT_AT(aFile, aLine, aCond, aText) \
    ((aCond) ? true : (::sw::TraceAssert(aFile, aLine, aText), false))

// The same, for a source that names its own stem in kFile
// (const char kFile[] = "com_reactor";).
#define SW_ASSERT_LINE(aLine, aCond, aText) SW_ASSERT_AT(kFile, aLine, aCond, aText)

#endif  // SYSTEM_WRAPPERS_SOURCE_SW_TRACE_H_
