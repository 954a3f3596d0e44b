#include "test_support.h"

#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>

#include <regex>

extern char** environ;

const char* const kTracePrefixPattern = R"(\[[DIWE]:ENG\+[0-9]+:[0-9]+\] [0-9]+\.[0-9]{6} )";

namespace {

std::mutex gMutex;
std::vector<CapturedLine> gLines;

void Capture(int aTag, int aLevel, const char* aFormat, ...) {
    va_list args;
    va_start(args, aFormat);
    const char* line = va_arg(args, const char*);
    va_end(args);

    static const std::regex prefix(std::string("^") + kTracePrefixPattern);
    CapturedLine captured{aTag, aLevel, line, std::regex_replace(line, prefix, "")};
    if (!captured.text.empty() && captured.text.back() == '\n') captured.text.pop_back();

    std::lock_guard<std::mutex> lock(gMutex);
    gLines.push_back(std::move(captured));
}

template <class Match>
size_t CountIf(int aLevel, const Match& aMatch) {
    std::lock_guard<std::mutex> lock(gMutex);
    size_t n = 0;
    for (const CapturedLine& l : gLines)
        n += (aLevel == TraceCapture::kAnyLevel || aLevel == l.level) && aMatch(l.text);
    return n;
}

::testing::AssertionResult Report(bool aOk, const char* aWhat, int aLevel,
                                  const std::string& aText) {
    if (aOk) return ::testing::AssertionSuccess();
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    failure << aWhat << " at level " << aLevel << ": \"" << aText << "\"\ncaptured lines:\n";
    std::lock_guard<std::mutex> lock(gMutex);
    for (const CapturedLine& l : gLines) failure << "  [" << l.level << "] " << l.text << "\n";
    return failure;
}

}  // namespace

std::string This(const void* aObject) {
    char buffer[64];
    snprintf(buffer, sizeof(buffer), ", this=%p", aObject);
    return buffer;
}

std::string AssertLine(const char* aFile, int aLine, const std::string& aExpr) {
    return std::string("system_wrappers/source/") + aFile + ": " + std::to_string(aLine) +
           ", assert failed, " + aExpr;
}

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
    return CountIf(aLevel, [&](const std::string& aLine) { return aLine == aText; });
}

size_t TraceCapture::CountMatching(int aLevel, const std::string& aPattern) const {
    const std::regex pattern(aPattern);
    return CountIf(aLevel,
                   [&](const std::string& aLine) { return std::regex_match(aLine, pattern); });
}

::testing::AssertionResult TraceCapture::Traced(int aLevel, const std::string& aText) const {
    return Report(Count(aLevel, aText) > 0, "not traced", aLevel, aText);
}

::testing::AssertionResult TraceCapture::WaitTraced(int aLevel, const std::string& aText,
                                                    std::chrono::milliseconds aTimeout) const {
    const bool seen = WaitUntil([&] { return Count(aLevel, aText) > 0; }, aTimeout);
    return Report(seen, "not traced in time", aLevel, aText);
}

bool ChildProgram::Start(const std::vector<std::string>& aArgv) {
    int fds[2];
    for (int i = 0; i < 2; ++i) {
        char path[] = "/tmp/sw_child_output_XXXXXX";
        if ((fds[i] = mkostemp(path, O_CLOEXEC)) == -1) return false;
        m_paths[i] = path;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    std::vector<char*> argv;
    for (const std::string& arg : aArgv) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const int rv = posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[0]);
    close(fds[1]);
    if (rv != 0) m_pid = -1;
    return rv == 0;
}

bool ChildProgram::WaitForOutput(const std::function<bool(const std::string&)>& aDone,
                                 std::chrono::milliseconds aBound) {
    const auto end = std::chrono::steady_clock::now() + aBound;
    while (!aDone(Out())) {
        if (!Running() || std::chrono::steady_clock::now() > end) return aDone(Out());
        usleep(10000);
    }
    return true;
}

bool ChildProgram::Finish(std::chrono::milliseconds aBound) {
    if (WaitUntil([this] { return !Running(); }, aBound)) return true;
    Signal(SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
    return false;
}

bool ChildProgram::Running() {
    if (m_pid <= 0) return false;
    pid_t rv;
    while ((rv = waitpid(m_pid, &m_status, WNOHANG)) == -1 && errno == EINTR) continue;
    if (rv == 0) return true;
    m_pid = -1;
    return false;
}
