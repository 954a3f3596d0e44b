#include <sys/syscall.h>
#include <regex>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;

const char kEndLine[] = "=============================== end of this file ====================\n";

void Write(MTRACE_OUTPUT_WHERE_TYPE aWhere, int aLevel, const std::string& aText) {
    CMyTrace_::Write(aWhere, static_cast<MTRACE_LEVEL_TYPE>(aLevel), aText.data(),
                     static_cast<unsigned int>(aText.size()));
}

bool IsLine(const std::string& aLine, const std::string& aText) {
    return std::regex_match(aLine,
                            std::regex(std::string("^") + kTracePrefixPattern + aText + "\n$"));
}

// The text builder, level letters, the line's shape and its cut are checked
// against printf by fuzz/fuzz_trace_text.cpp, whose corpus the suite replays.
TEST(CMyTrace, ThreadIdsPrefixCutUptimeAndNoLevelFilter) {
    TraceCapture capture;
    CMyTrace_::UpdateOutputSysLogLevel(3);  // no effect: nothing is filtered by level
    Write(MTRACE_OUTPUT_CALLBACK, 0, "hello");
    std::string otherTid;
    std::thread([&] {
        otherTid = std::to_string(syscall(SYS_gettid));
        Write(MTRACE_OUTPUT_CALLBACK, 1, "other thread");
    }).join();
    CMyTrace_::SetLogCallback(nullptr);
    Write(MTRACE_OUTPUT_CALLBACK, 1, "lost");

    std::vector<CapturedLine> lines = capture.Lines();
    ASSERT_EQ(2u, lines.size());
    const std::string ids = std::to_string(getpid()) + ":" + std::to_string(syscall(SYS_gettid));
    EXPECT_EQ(0u, lines[0].line.find("[D:ENG+" + ids + "] ")) << lines[0].line;
    EXPECT_NE(std::string::npos, lines[1].line.find(":" + otherTid + "] "));
    // A forked child stamps its own thread id, not the parent's.
    const pid_t child = fork();
    if (child == 0) {
        char prefix[64];
        CMyTraceImpl_::s_LogInstance.load()->GetTracePrefix(1, prefix, sizeof(prefix));
        _exit(strstr(prefix, (":" + std::to_string(getpid()) + "] ").c_str()) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // A prefix longer than its buffer is cut there and reports its full length.
    char cut[8];
    const unsigned int full =
        CMyTraceImpl_::s_LogInstance.load()->GetTracePrefix(1, cut, sizeof(cut));
    EXPECT_EQ("[I:ENG+", std::string(cut));
    EXPECT_EQ(lines[0].line.size() - strlen("hello\n"), full);

    // Uptime from the monotonic clock, not the wall clock.
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long seconds = std::stol(lines[0].line.substr(lines[0].line.find("] ") + 2));
    EXPECT_LE(seconds, now.tv_sec);
    EXPECT_GE(seconds, now.tv_sec - 60);
}

// The destroyed state is final for the process, so each scenario runs in a child
// process of its own, which exits 0 only if nothing traced after the destroy reaches
// any destination or creates anything.
int gCalls = 0;
void Count(int, int, const char*, ...) {
    ++gCalls;
}

TEST(CMyTrace, DestroyedGoesQuietForGood) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process per scenario
    for (bool used : {true, false}) {                // destroyed while in use, or before any line
        EXPECT_EXIT(
            {
                char dir[] = "/tmp/sw_trace_destroyed_XXXXXX";  // for the trace files
                if (!mkdtemp(dir) || chdir(dir) != 0) exit(3);
                CMyTrace_::SetLogCallback(&Count);
                if (used) Write(MTRACE_OUTPUT_CALLBACK, 3, "line");
                if (used) Write(MTRACE_OUTPUT_FILE, 3, "line");
                if (used && (gCalls != 1 || unlink("zemtrace_linux_0.log") != 0)) exit(2);
                CMyTrace_::DestroyTrace();
                gCalls = 0;
                CMyTrace_::SetLogCallback(&Count);
                for (auto where :
                     {MTRACE_OUTPUT_CALLBACK, MTRACE_OUTPUT_FILE, MTRACE_OUTPUT_STDOUT})
                    Write(where, 3, "line");
                webrtc::Trace::Add(webrtc::kTraceError, webrtc::kTraceModuleGeneral, 1, "lost");
                CMyTrace_::DestroyTrace();  // a second destroy is harmless
                const bool silent =
                    gCalls == 0 && unlink("zemtrace_linux_0.log") != 0 &&
                    !CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "t", 512, 1, 2, 9) &&
                    !webrtc::Trace::CreateTrace();
                rmdir(dir);
                exit(silent ? 0 : 1);
            },
            testing::ExitedWithCode(0), "^$")
            << used;
    }
}

// Tests that write trace files run in a fresh temporary working directory.
class TraceFiles : public TempDirTest {
protected:
    void SetUp() override { TempDirTest::SetUp(), fs::current_path(m_dir); }
    void TearDown() override { fs::current_path(m_previous), TempDirTest::TearDown(); }
    const fs::path m_previous = fs::current_path();
};

TEST_F(TraceFiles, FacadeDestinations) {
    Write(MTRACE_OUTPUT_FILE, 2, "to the file");
    Write(static_cast<MTRACE_OUTPUT_WHERE_TYPE>(3), 1, "any other value");
    std::string content = ReadFile("zemtrace_linux_0.log");  // flushed after every line
    EXPECT_TRUE(std::regex_match(content, std::regex(std::string(R"(^\[W:[^\n]* to the file\n)") +
                                                     kTracePrefixPattern + "any other value\n$")))
        << content;

    testing::internal::CaptureStdout();
    Write(MTRACE_OUTPUT_STDOUT, 3, "to stdout");
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(IsLine(out, "to stdout") && out[1] == 'E') << out;

    // A prefix longer than the line limit drops the line, with a note on stdout,
    // also when no callback would have taken the line.
    TraceCapture capture;
    CMyTraceImpl_ tiny(MTRACE_LEVEL_INFO, "tiny", 10, 1, 2, 1000);
    for (MTRACE_LOG_CALLBACK callback :
         {CMyTraceImpl_::s_LogInstance.load()->m_logCallback.load(), MTRACE_LOG_CALLBACK()}) {
        tiny.m_logCallback = callback;
        testing::internal::CaptureStdout();
        tiny.Write(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_ERROR, "text", 4);
        fflush(stdout);
        EXPECT_EQ("logwrite, outof memory\n", testing::internal::GetCapturedStdout());
    }
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(TraceFiles, RotationFlushIntervalAndFailedOpens) {
    CMyTraceImpl_ impl(MTRACE_LEVEL_INFO, nullptr, 512, 1, 2, 100);
    const std::string line = std::string(49, 'a') + "\n", big = std::string(120, 'b') + "\n";
    impl.WriteToFile(line.c_str(), 50);
    impl.WriteToFile(line.c_str(), 50);  // exactly the threshold: no rotation
    impl.WriteToFile(line.c_str(), 50);  // past it: end line, close, next index
    EXPECT_EQ(line + line + line + kEndLine, ReadFile("zemtrace_linux_0.log"));
    EXPECT_FALSE(fs::exists("zemtrace_linux_1.log"));  // opened by the next line
    impl.WriteToFile(big.c_str(), 121);
    EXPECT_EQ(big + kEndLine, ReadFile("zemtrace_linux_1.log"));
    impl.WriteToFile("c\n", 2);  // back to file 0, which is emptied
    EXPECT_EQ("c\n", ReadFile("zemtrace_linux_0.log"));

    CMyTraceImpl_ flush(MTRACE_LEVEL_INFO, "flush", 512, 3, 2, 1u << 20);
    flush.WriteToFile("one\n", 4);
    flush.WriteToFile("two\n", 4);
    EXPECT_EQ("", ReadFile("flush_linux_0.log"));  // still buffered
    flush.WriteToFile("three\n", 6);
    EXPECT_EQ("one\ntwo\nthree\n", ReadFile("flush_linux_0.log"));

    CMyTraceImpl_ blocked(MTRACE_LEVEL_INFO, "no_dir/x", 512, 1, 2, 1u << 20);
    blocked.WriteToFile("dropped\n", 8);
    fs::create_directory("no_dir");
    blocked.WriteToFile("kept\n", 5);  // every line tries to open again
    EXPECT_EQ("kept\n", ReadFile("no_dir/x_linux_0.log"));
}

TEST_F(TraceFiles, ConcurrentWritersKeepLinesWhole) {
    TraceCapture capture;
    CMyTraceImpl_ impl(MTRACE_LEVEL_INFO, "mt", 512, 1, 2, 20000);
    RunThreads(4, [&impl](int t) {
        for (int i = 0; i < 300; ++i) {
            std::string text = "writer " + std::to_string(t) + " line " + std::to_string(i);
            impl.Write(MTRACE_OUTPUT_FILE, MTRACE_LEVEL_INFO, text.data(),
                       static_cast<unsigned int>(text.size()));
            Write(MTRACE_OUTPUT_CALLBACK, 1, text);
        }
    });
    impl.CloseFile();
    EXPECT_EQ(1200u, capture.Lines().size());
    for (const char* name : {"mt_linux_0.log", "mt_linux_1.log"}) {
        std::ifstream in(name);
        for (std::string l; std::getline(in, l);)
            EXPECT_TRUE(l + "\n" == kEndLine || IsLine(l + "\n", "writer [0-9] line [0-9]+")) << l;
    }
}

}  // namespace
