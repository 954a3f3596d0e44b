#include "trace_capture.h"

#include <stdarg.h>

#include <condition_variable>
#include <mutex>
#include <regex>

#include "mtrace.h"

const char* const kTracePrefixPattern = R"(\[[DIWE]:ENG\+[0-9]+:[0-9]+\] [0-9]+\.[0-9]{6} )";

namespace {

std::mutex gMutex;
std::condition_variable gArrived;
std::vector<CapturedLine> gLines;

void Capture(int aTag, int aLevel, const char* aFormat, ...) {
    va_list args;
    va_start(args, aFormat);
    const char* line = va_arg(args, const char*);
    va_end(args);

    CapturedLine captured{aTag, aLevel, aFormat ? aFormat : "", line ? line : "", ""};
    static const std::regex prefix(std::string("^") + kTracePrefixPattern);
    std::smatch match;
    std::string body = captured.line;
    if (std::regex_search(body, match, prefix)) body = match.suffix();
    if (!body.empty() && body.back() == '\n') body.pop_back();
    captured.text = body;

    std::lock_guard<std::mutex> lock(gMutex);
    gLines.push_back(std::move(captured));
    gArrived.notify_all();
}

bool LevelMatches(int aWanted, int aLevel) {
    return aWanted == TraceCapture::kAnyLevel || aWanted == aLevel;
}

}  // namespace

TraceCapture::TraceCapture() {
    Clear();
    CMyTrace_::SetLogCallback(&Capture);
}

TraceCapture::~TraceCapture() {
    CMyTrace_::SetLogCallback(nullptr);
}

std::vector<CapturedLine> TraceCapture::Lines() const {
    std::lock_guard<std::mutex> lock(gMutex);
    return gLines;
}

void TraceCapture::Clear() {
    std::lock_guard<std::mutex> lock(gMutex);
    gLines.clear();
}

size_t TraceCapture::Count(int aLevel, const std::string& aText) const {
    size_t n = 0;
    for (const CapturedLine& l : Lines()) n += LevelMatches(aLevel, l.level) && l.text == aText;
    return n;
}

size_t TraceCapture::CountContaining(int aLevel, const std::string& aFragment) const {
    size_t n = 0;
    for (const CapturedLine& l : Lines())
        n += LevelMatches(aLevel, l.level) && l.text.find(aFragment) != std::string::npos;
    return n;
}

std::string TraceCapture::Dump() const {
    std::string out = "\ncaptured lines:\n";
    for (const CapturedLine& l : Lines())
        out += "  [" + std::to_string(l.level) + "] " + l.text + "\n";
    return out;
}

::testing::AssertionResult TraceCapture::Traced(int aLevel, const std::string& aText) const {
    if (Count(aLevel, aText) > 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "not traced at level " << aLevel << ": \"" << aText << "\"" << Dump();
}

::testing::AssertionResult TraceCapture::NotTraced(int aLevel, const std::string& aText) const {
    if (Count(aLevel, aText) == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "traced at level " << aLevel << ": \"" << aText << "\"" << Dump();
}

::testing::AssertionResult TraceCapture::TracedContaining(int aLevel,
                                                          const std::string& aFragment) const {
    if (CountContaining(aLevel, aFragment) > 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "nothing containing \"" << aFragment << "\" at level " << aLevel << Dump();
}

::testing::AssertionResult TraceCapture::WaitTraced(int aLevel, const std::string& aText,
                                                    std::chrono::milliseconds aTimeout) const {
    std::unique_lock<std::mutex> lock(gMutex);
    bool seen = gArrived.wait_for(lock, aTimeout, [&] {
        for (const CapturedLine& l : gLines)
            if (LevelMatches(aLevel, l.level) && l.text == aText) return true;
        return false;
    });
    lock.unlock();
    if (seen) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "not traced in time at level " << aLevel << ": \"" << aText << "\"" << Dump();
}
