// The trace facility: the one logging path of the library. A line is built
// with CMyTextFormat on the caller's stack, handed to CMyTrace_::Write, stamped
// with a prefix and delivered to standard output, the rotating trace files or
// the host's log callback.
#ifndef SYSTEM_WRAPPERS_MTRACE_H_
#define SYSTEM_WRAPPERS_MTRACE_H_

#include <stdio.h>

#include <atomic>
#include <string>

#include "ComBase.h"
#include "sw_export.h"

// Both enumerations have a fixed underlying type, so every int value the
// rules below give a meaning to is a valid value of the type.
enum MTRACE_OUTPUT_WHERE_TYPE : int {
    MTRACE_OUTPUT_STDOUT = 0,
    MTRACE_OUTPUT_FILE = 1,  // every value other than 0 and 5 selects the file too
    MTRACE_OUTPUT_CALLBACK = 5,
};

enum MTRACE_LEVEL_TYPE : int {
    MTRACE_LEVEL_DEBUG = 0,
    MTRACE_LEVEL_INFO = 1,
    MTRACE_LEVEL_WARNING = 2,
    MTRACE_LEVEL_ERROR = 3,  // levels above 3 print as errors too
};

// The host's log callback: called with 7, the level, "%s" and the finished line.
typedef void (*MTRACE_LOG_CALLBACK)(int, int, const char*, ...);

// Fixed-capacity text builder: 1024 characters on the stack, no heap. Once an
// append does not fit, the text stops growing and later appends are ignored.
class SW_EXPORT CMyTextFormat {
public:
    static const unsigned int kCapacity = 1024;

    CMyTextFormat() : m_length(0) { m_text[0] = '\0'; }

    CMyTextFormat& operator<<(char aValue);
    CMyTextFormat& operator<<(const char* aValue);
    CMyTextFormat& operator<<(int aValue);
    CMyTextFormat& operator<<(unsigned short aValue);
    CMyTextFormat& operator<<(unsigned int aValue);
    CMyTextFormat& operator<<(long aValue);
    CMyTextFormat& operator<<(unsigned long aValue);
    CMyTextFormat& operator<<(long long aValue);
    CMyTextFormat& operator<<(unsigned long long aValue);
    CMyTextFormat& operator<<(double aValue);
    CMyTextFormat& operator<<(const void* aValue);

    const char* GetContent(unsigned int& aLength) const {
        aLength = m_length;
        return m_text;
    }

private:
    CMyTextFormat& Append(const char* aFormat, ...) __attribute__((format(printf, 2, 3)));
    // Appends aSize ready-made characters exactly as Append would print them.
    CMyTextFormat& AppendText(const char* aText, unsigned int aSize);

    unsigned int m_length;
    char m_text[kCapacity + 1];
};

// The static facade used by every trace point and by the host.
class SW_EXPORT CMyTrace_ {
public:
    // Exactly aLength bytes of aText are taken; it need not be zero-terminated.
    static void Write(MTRACE_OUTPUT_WHERE_TYPE aWhere, MTRACE_LEVEL_TYPE aLevel, const char* aText,
                      unsigned int aLength);
    // Null removes the callback. Lines for the callback are dropped while none is set.
    static void SetLogCallback(MTRACE_LOG_CALLBACK aCallback);
    // Kept for hosts that call it; it has no effect.
    static void UpdateOutputSysLogLevel(int aLevel);
    // Final: after it, every trace call (callback installation included) does nothing.
    static void DestroyTrace();
};

// The process-wide trace object behind the facade. Its members are public so
// that hosts and tests can inspect the file side.
class SW_EXPORT CMyTraceImpl_ {
public:
    static CMyTraceImpl_* Instance(MTRACE_LEVEL_TYPE aLevel, const char* aName,
                                   unsigned long aMaxLineLength, unsigned long aFlushInterval,
                                   unsigned long aFileCount, unsigned long aMaxFileSize);
    static void Destroy();

    CMyTraceImpl_(MTRACE_LEVEL_TYPE aLevel, const char* aName, unsigned long aMaxLineLength,
                  unsigned long aFlushInterval, unsigned long aFileCount,
                  unsigned long aMaxFileSize);
    ~CMyTraceImpl_();
    CMyTraceImpl_(const CMyTraceImpl_&) = delete;
    CMyTraceImpl_& operator=(const CMyTraceImpl_&) = delete;

    void Write(MTRACE_OUTPUT_WHERE_TYPE aWhere, MTRACE_LEVEL_TYPE aLevel, const char* aText,
               unsigned int aLength);
    unsigned int GetTracePrefix(int aLevel, char* aBuffer, unsigned int aSize);
    void WriteToStdout(const char* aLine);
    void WriteToLogCallbackFunction(const char* aLine, MTRACE_LEVEL_TYPE aLevel);
    void WriteImpl(const char* aLine, unsigned int aLength, MTRACE_LEVEL_TYPE aLevel);
    void WriteToFile(const char* aLine, unsigned int aLength);
    FILE* OpenFile();
    void CheckFilesize();
    void CloseFile();
    void UpdateOutputSysLogLevel(int aLevel);

    // The line buffer of Write: a line holds at most this many characters before
    // its newline, and never more than m_maxLineLength.
    static const unsigned int kLineBufferSize = 1092;

    FILE* m_file;
    unsigned int m_writeCount;
    unsigned int m_flushInterval;
    unsigned int m_fileIndex;
    unsigned int m_fileCount;
    unsigned int m_fileSize;
    unsigned int m_maxFileSize;
    unsigned int m_pid;
    unsigned int m_maxLineLength;
    MTRACE_LEVEL_TYPE m_level;  // kept, never consulted: no line is filtered by level
    std::string m_name;
    void* m_reserved;
    std::atomic<MTRACE_LOG_CALLBACK> m_logCallback;  // set and read without a lock

    static std::atomic<CMyTraceImpl_*> s_LogInstance;
    static CMyMutex s_Mutex;
    static bool s_HasDeleted;
    static const char* const _trace_level_str_arr[4];
};

#endif  // SYSTEM_WRAPPERS_MTRACE_H_
