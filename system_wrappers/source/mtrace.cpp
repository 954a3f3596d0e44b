#include "mtrace.h"

#include <limits.h>
#include <stdarg.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>

#include "sw_trace.h"

namespace {

// The longest prefix: "[E:ENG+" 7, two 10-digit ids with ':' and "] " 13,
// 20 digits of seconds, '.', 6 of microseconds and the blank 28.
const unsigned int kLongestPrefix = 58;

}  // namespace

// ---------------------------------------------------------------------------
// CMyTextFormat

CMyTextFormat& CMyTextFormat::Append(const char* aFormat, ...) {
    if (m_length >= kCapacity) return *this;
    va_list args;
    va_start(args, aFormat);
    const unsigned int room = kCapacity - m_length;
    int written = vsnprintf(m_text + m_length, room, aFormat, args);
    va_end(args);
    // The reported count is the untruncated length, so an append that does not
    // fit takes the length to the capacity and the text stops growing there.
    unsigned int grown = written < 0 ? room : static_cast<unsigned int>(written);
    m_length = grown >= room ? kCapacity : m_length + grown;
    m_text[m_length] = '\0';
    return *this;
}

// The common operands are printed by hand, not through vsnprintf: the same
// characters at a fraction of the cost, since every trace line is built here.
CMyTextFormat& CMyTextFormat::AppendText(const char* aText, unsigned int aSize) {
    if (m_length >= kCapacity) return *this;
    const unsigned int room = kCapacity - m_length;
    if (aSize < room) {
        memcpy(m_text + m_length, aText, aSize);
        m_length += aSize;
    } else {
        // Cut where snprintf would cut: room - 1 characters and its zero.
        memcpy(m_text + m_length, aText, room - 1);
        m_text[kCapacity - 1] = '\0';
        m_length = kCapacity;
    }
    m_text[m_length] = '\0';
    return *this;
}

namespace {

// The decimal digits of a value into aBuffer; returns the count.
template <class T>
unsigned int Digits(char (&aBuffer)[24], T aValue) {
    return static_cast<unsigned int>(std::to_chars(aBuffer, aBuffer + sizeof(aBuffer), aValue).ptr -
                                     aBuffer);
}

}  // namespace

CMyTextFormat& CMyTextFormat::operator<<(char aValue) {
    if (aValue >= 32 && aValue <= 126) return AppendText(&aValue, 1);
    return *this << static_cast<int>(static_cast<signed char>(aValue));
}

CMyTextFormat& CMyTextFormat::operator<<(const char* aValue) {
    if (!aValue) return *this << static_cast<const void*>(aValue);
    if (m_length >= kCapacity) return *this;
    const size_t size = strlen(aValue);
    return AppendText(aValue, size < kCapacity ? static_cast<unsigned int>(size) : kCapacity);
}

CMyTextFormat& CMyTextFormat::operator<<(int aValue) {
    return *this << static_cast<long>(aValue);
}

CMyTextFormat& CMyTextFormat::operator<<(unsigned short aValue) {
    return *this << static_cast<unsigned int>(aValue);
}

CMyTextFormat& CMyTextFormat::operator<<(unsigned int aValue) {
    return *this << static_cast<unsigned long>(aValue);
}

CMyTextFormat& CMyTextFormat::operator<<(long aValue) {
    char digits[24];
    return AppendText(digits, Digits(digits, aValue));
}

CMyTextFormat& CMyTextFormat::operator<<(unsigned long aValue) {
    char digits[24];
    return AppendText(digits, Digits(digits, aValue));
}

CMyTextFormat& CMyTextFormat::operator<<(long long aValue) {
    char digits[24];
    return AppendText(digits, Digits(digits, aValue));
}

CMyTextFormat& CMyTextFormat::operator<<(unsigned long long aValue) {
    char digits[24];
    return AppendText(digits, Digits(digits, aValue));
}

CMyTextFormat& CMyTextFormat::operator<<(double aValue) {
    return Append("%f", aValue);
}

CMyTextFormat& CMyTextFormat::operator<<(const void* aValue) {
    // As glibc prints %p: "(nil)" for null, otherwise 0x and lowercase hex.
    if (!aValue) return AppendText("(nil)", 5);
    char text[24] = {'0', 'x'};
    const char* end =
        std::to_chars(text + 2, text + sizeof(text), reinterpret_cast<uintptr_t>(aValue), 16).ptr;
    return AppendText(text, static_cast<unsigned int>(end - text));
}

// ---------------------------------------------------------------------------
// CMyTrace_: every entry but DestroyTrace creates the instance on first use.

namespace {

CMyTraceImpl_* FacadeInstance() {
    return CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "zemtrace", 512, 1, 2, 52428800);
}

}  // namespace

void CMyTrace_::Write(MTRACE_OUTPUT_WHERE_TYPE aWhere, MTRACE_LEVEL_TYPE aLevel, const char* aText,
                      unsigned int aLength) {
    if (CMyTraceImpl_* impl = FacadeInstance()) impl->Write(aWhere, aLevel, aText, aLength);
}

void CMyTrace_::SetLogCallback(MTRACE_LOG_CALLBACK aCallback) {
    if (CMyTraceImpl_* impl = FacadeInstance()) impl->m_logCallback.store(aCallback);
}

void CMyTrace_::UpdateOutputSysLogLevel(int aLevel) {
    if (CMyTraceImpl_* impl = FacadeInstance()) impl->UpdateOutputSysLogLevel(aLevel);
}

void CMyTrace_::DestroyTrace() {
    CMyTraceImpl_::Destroy();
}

// ---------------------------------------------------------------------------
// CMyTraceImpl_

std::atomic<CMyTraceImpl_*> CMyTraceImpl_::s_LogInstance{nullptr};
CMyMutex CMyTraceImpl_::s_Mutex;
bool CMyTraceImpl_::s_HasDeleted = false;
const char* const CMyTraceImpl_::_trace_level_str_arr[4] = {"D", "I", "W", "E"};

CMyTraceImpl_* CMyTraceImpl_::Instance(MTRACE_LEVEL_TYPE aLevel, const char* aName,
                                       unsigned long aMaxLineLength, unsigned long aFlushInterval,
                                       unsigned long aFileCount, unsigned long aMaxFileSize) {
    CMyTraceImpl_* instance = s_LogInstance.load(std::memory_order_acquire);
    if (instance) return instance;
    PattAutoLock<CMyMutex> guard(s_Mutex);
    if (s_HasDeleted) return nullptr;
    instance = s_LogInstance.load(std::memory_order_relaxed);
    if (!instance) {
        instance = new CMyTraceImpl_(aLevel, aName, aMaxLineLength, aFlushInterval, aFileCount,
                                     aMaxFileSize);
        s_LogInstance.store(instance, std::memory_order_release);
    }
    return instance;
}

void CMyTraceImpl_::Destroy() {
    PattAutoLock<CMyMutex> guard(s_Mutex);
    s_HasDeleted = true;
    delete s_LogInstance.exchange(nullptr, std::memory_order_acq_rel);
}

CMyTraceImpl_::CMyTraceImpl_(MTRACE_LEVEL_TYPE aLevel, const char* aName,
                             unsigned long aMaxLineLength, unsigned long aFlushInterval,
                             unsigned long aFileCount, unsigned long aMaxFileSize)
    : m_file(nullptr),
      m_writeCount(0),
      m_flushInterval(static_cast<unsigned int>(aFlushInterval)),
      m_fileIndex(0),
      m_fileCount(static_cast<unsigned int>(aFileCount)),
      m_fileSize(0),
      m_maxFileSize(static_cast<unsigned int>(aMaxFileSize)),
      m_pid(0),
      m_maxLineLength(static_cast<unsigned int>(aMaxLineLength)),
      m_level(aLevel),
      m_name(aName ? aName : "zemtrace"),
      m_reserved(nullptr),
      m_logCallback(nullptr) {
    m_pid = static_cast<unsigned int>(getpid());
}

CMyTraceImpl_::~CMyTraceImpl_() {
    PattAutoLock<CMyMutex> guard(s_Mutex);
    CloseFile();
}

void CMyTraceImpl_::Write(MTRACE_OUTPUT_WHERE_TYPE aWhere, MTRACE_LEVEL_TYPE aLevel,
                          const char* aText, unsigned int aLength) {
    if (!s_LogInstance.load(std::memory_order_acquire)) return;

    // Two spare bytes: a full line is the limit plus a newline, then its zero.
    char line[kLineBufferSize + 2];
    const unsigned int limit =
        m_maxLineLength < kLineBufferSize ? m_maxLineLength : kLineBufferSize;
    // A line for a callback nobody installed would be dropped: skip building
    // it, unless the limit is so short that the prefix would not fit, which
    // must still be reported.
    if (aWhere == MTRACE_OUTPUT_CALLBACK && limit >= kLongestPrefix &&
        !m_logCallback.load(std::memory_order_acquire)) {
        return;
    }

    // Formatted with room for the limit itself, so a prefix of exactly the limit
    // is kept whole.
    unsigned int length = GetTracePrefix(aLevel, line, limit + 1);
    if (length > limit) {
        WriteToStdout("logwrite, outof memory\n");
        return;
    }
    unsigned int copied = aText ? limit - length : 0;
    if (aLength < copied) copied = aLength;
    if (copied > 0) memcpy(line + length, aText, copied);
    length += copied;
    line[length++] = '\n';
    line[length] = '\0';

    switch (aWhere) {
        case MTRACE_OUTPUT_STDOUT:
            WriteToStdout(line);
            break;
        case MTRACE_OUTPUT_CALLBACK:
            WriteToLogCallbackFunction(line, aLevel);
            break;
        default:
            WriteImpl(line, length, aLevel);
            break;
    }
}

namespace {

// The kernel's thread id, asked once per thread; a forked child asks again.
thread_local unsigned int t_tid = 0;

void ForgetTid() {
    t_tid = 0;
}

unsigned int CurrentTid() {
    if (t_tid == 0) {
        static const int s_atFork = pthread_atfork(nullptr, nullptr, ForgetTid);
        (void)s_atFork;
        t_tid = static_cast<unsigned int>(syscall(SYS_gettid));
    }
    return t_tid;
}

// Decimal digits straight into the prefix (at most 20 for 64 bits).
char* PutDecimal(char* aOut, unsigned long aValue) {
    return std::to_chars(aOut, aOut + 20, aValue).ptr;
}

char* PutText(char* aOut, const char* aText) {
    while (*aText != '\0') *aOut++ = *aText++;
    return aOut;
}

}  // namespace

unsigned int CMyTraceImpl_::GetTracePrefix(int aLevel, char* aBuffer, unsigned int aSize) {
    // Out-of-range levels (negative ones included, which are invalid) print as errors.
    const unsigned int index = static_cast<unsigned int>(aLevel) > MTRACE_LEVEL_ERROR
                                   ? static_cast<unsigned int>(MTRACE_LEVEL_ERROR)
                                   : static_cast<unsigned int>(aLevel);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // "[%s:ENG+%u:%u] %ld.%06ld ", built by hand: this runs for every line.
    // It is built in place when the buffer surely holds it (the usual case).
    char local[kLongestPrefix + 1];
    char* const begin = aSize > kLongestPrefix ? aBuffer : local;
    char* out = begin;
    *out++ = '[';
    out = PutText(out, _trace_level_str_arr[index]);
    out = PutText(out, ":ENG+");
    out = PutDecimal(out, m_pid);
    *out++ = ':';
    out = PutDecimal(out, CurrentTid());
    *out++ = ']';
    *out++ = ' ';
    out = PutDecimal(out, static_cast<unsigned long>(now.tv_sec));
    *out++ = '.';
    const unsigned long usec = static_cast<unsigned long>(now.tv_nsec / 1000);
    for (unsigned long digit = 100000; digit > usec && digit > 1; digit /= 10) *out++ = '0';
    out = PutDecimal(out, usec);
    *out++ = ' ';
    const unsigned int length = static_cast<unsigned int>(out - begin);
    if (begin == aBuffer) {
        *out = '\0';
    } else if (aSize > 0) {
        // Handed over as snprintf would: cut to the buffer, the full length returned.
        const unsigned int kept = length < aSize ? length : aSize - 1;
        memcpy(aBuffer, local, kept);
        aBuffer[kept] = '\0';
    }
    return length;
}

void CMyTraceImpl_::WriteToStdout(const char* aLine) {
    PattAutoLock<CMyMutex> guard(s_Mutex);
    fputs(aLine, stdout);
}

void CMyTraceImpl_::WriteToLogCallbackFunction(const char* aLine, MTRACE_LEVEL_TYPE aLevel) {
    // No lock: the host's callback must be safe to call from several threads.
    if (MTRACE_LOG_CALLBACK callback = m_logCallback.load(std::memory_order_acquire)) {
        callback(7, aLevel, "%s", aLine);
    }
}

void CMyTraceImpl_::WriteImpl(const char* aLine, unsigned int aLength, MTRACE_LEVEL_TYPE) {
    WriteToFile(aLine, aLength);
}

void CMyTraceImpl_::WriteToFile(const char* aLine, unsigned int aLength) {
    PattAutoLock<CMyMutex> guard(s_Mutex);
    FILE* file = OpenFile();
    if (!file) return;  // dropped; the next line tries to open again
    fputs(aLine, file);
    ++m_writeCount;
    // A zero interval (never passed by the facade) flushes every line.
    if (m_flushInterval == 0 || m_writeCount % m_flushInterval == 0) fflush(file);
    m_fileSize += aLength;
    CheckFilesize();
}

FILE* CMyTraceImpl_::OpenFile() {
    CheckFilesize();
    if (!m_file) {
        char name[PATH_MAX];
        snprintf(name, sizeof(name), "%s_linux_%u.log", m_name.c_str(), m_fileIndex);
        m_file = fopen(name, "w");
    }
    return m_file;
}

void CMyTraceImpl_::CheckFilesize() {
    if (m_fileSize <= m_maxFileSize) return;
    if (m_file)
        fputs("=============================== end of this file ====================\n", m_file);
    CloseFile();
    // A zero file count (never passed by the facade) keeps rewriting file 0.
    m_fileIndex = m_fileCount ? (m_fileIndex + 1) % m_fileCount : 0;
    m_fileSize = 0;
    m_writeCount = 0;
}

void CMyTraceImpl_::CloseFile() {
    if (m_file) {
        fclose(m_file);
        m_file = nullptr;
    }
}

void CMyTraceImpl_::UpdateOutputSysLogLevel(int) {}

// ---------------------------------------------------------------------------

void sw::TraceAssert(const char* aFile, int aLine, const char* aExpr) {
    SW_TRACE_ERROR("system_wrappers/source/" << aFile << ": " << aLine << ", assert failed, "
                                             << aExpr);
}
