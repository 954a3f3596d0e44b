/// @file
/// The trace facility: the one logging path of the library. A line is built
/// with CMyTextFormat on the caller's stack, handed to CMyTrace_::Write, stamped
/// with a prefix and delivered to standard output, the rotating trace files or
/// the host's log callback.
///
/// Every trace point of the library writes to the log callback only, at every
/// level (nothing is filtered). Until the host installs a callback with
/// CMyTrace_::SetLogCallback, the library's lines are dropped: none of them
/// reaches standard output or a trace file. Standard output and the trace files
/// ("zemtrace_linux_0.log", "zemtrace_linux_1.log" in the working directory)
/// get only the lines a host writes there itself with CMyTrace_::Write, plus
/// "logwrite, outof memory" on standard output when a line limit is too short
/// for the prefix (never with the facade's limit of 512). The library's other
/// output does not go through here: SharedMemImpl prints its messages on
/// standard output, and the file wrappers of ZemFile.h print perror texts on
/// standard error.
#ifndef SYSTEM_WRAPPERS_MTRACE_H_
#define SYSTEM_WRAPPERS_MTRACE_H_

#include <stdio.h>

#include <atomic>
#include <string>

#include "ComBase.h"
#include "sw_export.h"

/// Where CMyTrace_::Write delivers a line. The type has a fixed underlying
/// type, so every int value the rules below give a meaning to is a valid value.
enum MTRACE_OUTPUT_WHERE_TYPE : int {
    MTRACE_OUTPUT_STDOUT = 0,    ///< Standard output, whole lines under the trace lock.
    MTRACE_OUTPUT_FILE = 1,      ///< The rotating trace files; so does any value but 0 and 5.
    MTRACE_OUTPUT_CALLBACK = 5,  ///< The host's log callback; dropped while none is set.
};

/// The level of a line, printed as one letter in its prefix and passed to the
/// log callback. The library traces failures and assertions at 3, tolerated
/// misuse at 2, progress at 1, and the portable primitives' detail lines at 0.
enum MTRACE_LEVEL_TYPE : int {
    MTRACE_LEVEL_DEBUG = 0,    ///< Letter "D".
    MTRACE_LEVEL_INFO = 1,     ///< Letter "I".
    MTRACE_LEVEL_WARNING = 2,  ///< Letter "W".
    MTRACE_LEVEL_ERROR = 3,    ///< Letter "E"; levels above 3 print as errors too.
};

/// The host's log callback, installed with CMyTrace_::SetLogCallback. It is
/// called once per line with 7 (the same for every line), the line's level as
/// given to Write (0 to 3 from the library), the format `"%s"` and the finished
/// line: the prefix (level letter, process id, kernel thread id, monotonic
/// seconds and microseconds since boot, as in "[E:ENG+4711:4712] 3021.004512 "),
/// the text and a newline, zero-terminated and valid only during the call.
///
/// It runs on the thread that traced, which may be any thread of the process
/// (library threads and the host's own), and several threads may call it at
/// once: no lock is held around it, so it must be thread-safe. The tracing
/// thread may hold one of the library's locks, so keep it short: it may pass
/// the line on with CMyTrace_::Write to standard output or a file, or with
/// SharedMemImpl::Write, but must not post, send, schedule or trace to the
/// callback from it.
typedef void (*MTRACE_LOG_CALLBACK)(int, int, const char*, ...);

/// Fixed-capacity text builder: 1024 characters on the stack, no heap. Once an
/// append does not fit, the text stops growing and later appends are ignored.
/// Each operator<< appends one value and returns the object, so that calls
/// chain.
class SW_EXPORT CMyTextFormat {
public:
    /// The most characters the text holds.
    static const unsigned int kCapacity = 1024;

    /// An empty text.
    CMyTextFormat() : m_length(0) { m_text[0] = '\0'; }

    /// Appends a printable character (32 to 126) as itself, any other as its
    /// signed decimal value.
    CMyTextFormat& operator<<(char aValue);
    /// Appends the string; a null pointer appends "(nil)".
    CMyTextFormat& operator<<(const char* aValue);
    /// Appends the value in decimal.
    CMyTextFormat& operator<<(int aValue);
    /// Appends the value in decimal.
    CMyTextFormat& operator<<(unsigned short aValue);
    /// Appends the value in decimal.
    CMyTextFormat& operator<<(unsigned int aValue);
    /// Appends the value in decimal.
    CMyTextFormat& operator<<(long aValue);
    /// Appends the value in decimal.
    CMyTextFormat& operator<<(unsigned long aValue);
    /// Appends the value in decimal.
    CMyTextFormat& operator<<(long long aValue);
    /// Appends the value in decimal.
    CMyTextFormat& operator<<(unsigned long long aValue);
    /// Appends the value with six decimals, as printf's `%f` does.
    CMyTextFormat& operator<<(double aValue);
    /// Appends the address as printf's `%p` does: "0x" and lowercase hex, or
    /// "(nil)" for null.
    CMyTextFormat& operator<<(const void* aValue);

    /// The text (zero-terminated, owned by this object) and, in aLength, its
    /// length.
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

/// The static facade used by every trace point and by the host. Each call but
/// DestroyTrace creates the process-wide trace on first use (line limit 512
/// characters, files "zemtrace_linux_0.log" and "zemtrace_linux_1.log" of
/// 50 MiB each, flushed after every line). Any thread.
class SW_EXPORT CMyTrace_ {
public:
    /// Stamps aText with the prefix and delivers the line to aWhere. Exactly
    /// aLength bytes of aText are taken; it need not be zero-terminated. The
    /// line is cut at 512 characters, prefix included, and always ends in a
    /// newline. No level is filtered. A line for the callback while none is
    /// set, or any line after DestroyTrace, is dropped silently.
    static void Write(MTRACE_OUTPUT_WHERE_TYPE aWhere, MTRACE_LEVEL_TYPE aLevel, const char* aText,
                      unsigned int aLength);
    /// Installs the log callback (see MTRACE_LOG_CALLBACK); null removes it.
    /// Lines for the callback are dropped while none is set. No lock: a line
    /// already under way may still reach the previous callback, so keep that
    /// one callable. No effect after DestroyTrace.
    static void SetLogCallback(MTRACE_LOG_CALLBACK aCallback);
    /// Kept for hosts that call it; it has no effect.
    static void UpdateOutputSysLogLevel(int aLevel);
    /// Final: closes the trace file, and after it every trace call (callback
    /// installation included) does nothing, for the rest of the process. Call
    /// it once no other thread can trace any more: a trace racing with it is
    /// not protected. A second call is harmless.
    static void DestroyTrace();
};

/// The process-wide trace object behind the facade. Its members are public so
/// that hosts and tests can inspect the file side. The file members are guarded
/// by s_Mutex; a host normally uses CMyTrace_ only.
class SW_EXPORT CMyTraceImpl_ {
public:
    /// The process-wide instance, made with these parameters on the first call
    /// (later calls return it unchanged; the facade passes MTRACE_LEVEL_INFO,
    /// "zemtrace", 512, 1, 2, 52428800). Null once Destroy has run. Any thread.
    static CMyTraceImpl_* Instance(MTRACE_LEVEL_TYPE aLevel, const char* aName,
                                   unsigned long aMaxLineLength, unsigned long aFlushInterval,
                                   unsigned long aFileCount, unsigned long aMaxFileSize);
    /// Deletes the instance for good; see CMyTrace_::DestroyTrace.
    static void Destroy();

    /// Stores the parameters (a null aName becomes "zemtrace"); opens nothing.
    /// aFlushInterval and aFileCount should not be 0. The Write of an object
    /// made directly writes only while the process-wide instance exists.
    CMyTraceImpl_(MTRACE_LEVEL_TYPE aLevel, const char* aName, unsigned long aMaxLineLength,
                  unsigned long aFlushInterval, unsigned long aFileCount,
                  unsigned long aMaxFileSize);
    /// Closes the current file, under s_Mutex.
    ~CMyTraceImpl_();
    /// Not copyable.
    CMyTraceImpl_(const CMyTraceImpl_&) = delete;
    /// Not copyable.
    CMyTraceImpl_& operator=(const CMyTraceImpl_&) = delete;

    /// Builds the line (prefix, at most the line limit of text, newline) and
    /// sends it to aWhere. A prefix longer than the limit drops the line with
    /// "logwrite, outof memory" on standard output. Any thread.
    void Write(MTRACE_OUTPUT_WHERE_TYPE aWhere, MTRACE_LEVEL_TYPE aLevel, const char* aText,
               unsigned int aLength);
    /// Writes the line prefix (see MTRACE_LOG_CALLBACK) into aBuffer
    /// of aSize bytes, cut and terminated as snprintf would, and returns its
    /// full length. Levels above 3 (and negative ones) print "E".
    unsigned int GetTracePrefix(int aLevel, char* aBuffer, unsigned int aSize);
    /// Writes aLine to standard output under s_Mutex.
    void WriteToStdout(const char* aLine);
    /// Calls the log callback with aLine, without a lock; nothing when none is set.
    void WriteToLogCallbackFunction(const char* aLine, MTRACE_LEVEL_TYPE aLevel);
    /// Forwards to WriteToFile; the level is not used.
    void WriteImpl(const char* aLine, unsigned int aLength, MTRACE_LEVEL_TYPE aLevel);
    /// Under s_Mutex: appends aLine (aLength bytes counted) to the current file,
    /// flushes every m_flushInterval lines and rotates past m_maxFileSize. A file
    /// that cannot be opened drops the line; the next line tries again.
    void WriteToFile(const char* aLine, unsigned int aLength);
    /// The current file, opened when none is: `m_name + "_linux_" + m_fileIndex + ".log"`
    /// in the working directory, emptied on opening. Null when it cannot be opened.
    /// The caller holds s_Mutex.
    FILE* OpenFile();
    /// Rotates once m_fileSize exceeds m_maxFileSize: ends the file with the
    /// line "=============================== end of this file ====================",
    /// closes it and moves to the next index. The caller holds s_Mutex.
    void CheckFilesize();
    /// Closes the current file, if any. The caller holds s_Mutex.
    void CloseFile();
    /// Does nothing.
    void UpdateOutputSysLogLevel(int aLevel);

    /// The line buffer of Write: a line holds at most this many characters before
    /// its newline, and never more than m_maxLineLength.
    static const unsigned int kLineBufferSize = 1092;

    FILE* m_file;                  ///< The current trace file; null while none is open.
    unsigned int m_writeCount;     ///< Lines written to the current file.
    unsigned int m_flushInterval;  ///< Lines between two flushes of the file.
    unsigned int m_fileIndex;      ///< Index of the current file, from 0 to m_fileCount - 1.
    unsigned int m_fileCount;      ///< Number of files rotated through.
    unsigned int m_fileSize;       ///< Bytes written to the current file.
    unsigned int m_maxFileSize;    ///< Size past which the file is rotated.
    unsigned int m_pid;            ///< Process id printed in every prefix.
    unsigned int m_maxLineLength;  ///< Line limit in characters, prefix included.
    MTRACE_LEVEL_TYPE m_level;     ///< Kept, never consulted: no line is filtered by level.
    std::string m_name;            ///< Stem of the trace file names.
    void* m_reserved;              ///< Unused; null.
    /// The host's log callback, null when none; set and read without a lock.
    std::atomic<MTRACE_LOG_CALLBACK> m_logCallback;

    /// The instance; null before the first trace call and after Destroy.
    static std::atomic<CMyTraceImpl_*> s_LogInstance;
    /// Serialises instance creation and destruction, standard output and the files.
    static CMyMutex s_Mutex;
    /// True once Destroy has run: the trace never comes back.
    static bool s_HasDeleted;
    /// The level letters "D", "I", "W", "E".
    static const char* const _trace_level_str_arr[4];
};

#endif  // SYSTEM_WRAPPERS_MTRACE_H_
