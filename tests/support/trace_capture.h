// Captures what the library traces, through the host log callback, so a test
// can assert that a text was (or was not) traced at a level.
#ifndef SYSTEM_WRAPPERS_TESTS_TRACE_CAPTURE_H_
#define SYSTEM_WRAPPERS_TESTS_TRACE_CAPTURE_H_

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "mtrace.h"

struct CapturedLine {
    int tag;             // first callback argument (always 7)
    int level;           // MTRACE_LEVEL_TYPE value
    std::string format;  // third argument ("%s")
    std::string line;    // the finished line: prefix, text, newline
    std::string text;    // the line without its prefix and newline
};

// The prefix every line starts with: "[L:ENG+pid:tid] sec.usec ".
extern const char* const kTracePrefixPattern;

// ", this=<aObject as %p prints it>", the suffix of most lines.
std::string This(const void* aObject);
// "system_wrappers/source/<aFile>: <aLine>, assert failed, <aExpr>"
std::string AssertLine(const char* aFile, int aLine, const std::string& aExpr);

// Installs the host log callback for its lifetime and records every line, from
// any thread. One capture at a time.
class TraceCapture {
public:
    static constexpr int kAnyLevel = -1;

    TraceCapture();
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    std::vector<CapturedLine> Lines() const;
    void Clear();
    // Lines whose text (prefix and newline stripped) equals aText.
    size_t Count(int aLevel, const std::string& aText) const;

    // Lines whose text matches the regular expression aPattern as a whole.
    size_t CountMatching(int aLevel, const std::string& aPattern) const;

    ::testing::AssertionResult Traced(int aLevel, const std::string& aText) const;
    ::testing::AssertionResult NotTraced(int aLevel, const std::string& aText) const;
    // For lines traced by another thread; the bound is generous on purpose.
    ::testing::AssertionResult WaitTraced(
        int aLevel, const std::string& aText,
        std::chrono::milliseconds aTimeout = std::chrono::seconds(30)) const;
};

#endif  // SYSTEM_WRAPPERS_TESTS_TRACE_CAPTURE_H_
