#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "mtrace.h"
#include "trace_capture.h"

namespace {

namespace fs = std::filesystem;

std::string Text(const CMyTextFormat& aFormat) {
    unsigned int length = 0;
    const char* text = aFormat.GetContent(length);
    return std::string(text, length);
}

std::string ReadFile(const fs::path& aPath) {
    std::ifstream in(aPath);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void FacadeWrite(MTRACE_OUTPUT_WHERE_TYPE aWhere, int aLevel, const std::string& aText) {
    CMyTrace_::Write(aWhere, static_cast<MTRACE_LEVEL_TYPE>(aLevel), aText.data(),
                     static_cast<unsigned int>(aText.size()));
}

TEST(CMyTextFormat, FormatsEveryOperand) {
    CMyTextFormat f;
    EXPECT_EQ("", Text(f));
    f << 'A' << '|' << static_cast<char>(10) << '|' << static_cast<char>(-56) << '|' << "txt" << '|'
      << -42 << '|' << static_cast<unsigned short>(65535) << '|' << 4294967295u << '|' << -7L << '|'
      << 18446744073709551615UL << '|' << -9LL << '|' << 9ULL << '|' << 1.5 << '|'
      << static_cast<const void*>(nullptr) << '|' << static_cast<const char*>(nullptr);
    EXPECT_EQ("A|10|-56|txt|-42|65535|4294967295|-7|18446744073709551615|-9|9|1.500000|(nil)|(nil)",
              Text(f));

    int object = 0;
    CMyTextFormat p;
    p << static_cast<const void*>(&object);
    char expected[32];
    snprintf(expected, sizeof(expected), "%p", static_cast<void*>(&object));
    EXPECT_EQ(expected, Text(p));
}

TEST(CMyTextFormat, StopsGrowingAtCapacity) {
    CMyTextFormat f;
    std::string chunk(1000, 'a');
    f << chunk.c_str();
    EXPECT_EQ(1000u, Text(f).size());
    f << std::string(30, 'b').c_str();  // does not fit: cut, and the text is full
    unsigned int length = 0;
    const char* text = f.GetContent(length);
    EXPECT_EQ(1024u, length);
    EXPECT_EQ(chunk + std::string(23, 'b'), std::string(text));
    f << "more" << 12345;  // ignored from now on
    EXPECT_EQ(1024u, Text(f).size());
    EXPECT_EQ(chunk + std::string(23, 'b'), std::string(f.GetContent(length)));

    CMyTextFormat exact;  // an append that fits exactly leaves room for nothing else
    exact << std::string(1023, 'x').c_str();
    EXPECT_EQ(1023u, Text(exact).size());
    exact << 'y';
    EXPECT_EQ(1024u, Text(exact).size());
}

TEST(CMyTrace, LineShapeLevelsAndCallbackArguments) {
    TraceCapture capture;
    for (int level : {0, 1, 2, 3, 7}) FacadeWrite(MTRACE_OUTPUT_CALLBACK, level, "hello");
    std::thread([] { FacadeWrite(MTRACE_OUTPUT_CALLBACK, 1, "other thread"); }).join();

    std::vector<CapturedLine> lines = capture.Lines();
    ASSERT_EQ(6u, lines.size());
    const char letters[] = {'D', 'I', 'W', 'E', 'E'};
    const int levels[] = {0, 1, 2, 3, 7};
    const std::string pid = std::to_string(getpid());
    const std::string tid = std::to_string(syscall(SYS_gettid));
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(7, lines[i].tag);
        EXPECT_EQ("%s", lines[i].format);
        EXPECT_EQ(levels[i], lines[i].level);
        std::regex shape(std::string(R"(^\[)") + letters[i] + ":ENG\\+" + pid + ":" + tid +
                         R"(\] [0-9]+\.[0-9]{6} hello\n$)");
        EXPECT_TRUE(std::regex_match(lines[i].line, shape)) << lines[i].line;
    }
    // Another thread shows its own kernel thread id.
    EXPECT_TRUE(std::regex_match(
        lines[5].line,
        std::regex(R"(^\[I:ENG\+[0-9]+:[0-9]+\] [0-9]+\.[0-9]{6} other thread\n$)")));
    EXPECT_EQ(std::string::npos, lines[5].line.find(":" + tid + "]"));

    // The clock is monotonic uptime, not the wall clock.
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(lines[0].line, m, std::regex(R"(\] ([0-9]+)\.)")));
    EXPECT_LE(std::stol(m[1]), now.tv_sec);
    EXPECT_GE(std::stol(m[1]), now.tv_sec - 60);
}

TEST(CMyTrace, TextIsTakenByLengthAndCutAtTheLineLimit) {
    TraceCapture capture;
    CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_INFO, "abcdef", 3);  // not terminated
    FacadeWrite(MTRACE_OUTPUT_CALLBACK, 1, "");
    FacadeWrite(MTRACE_OUTPUT_CALLBACK, 1, std::string(600, 'x'));
    CMyTrace_::UpdateOutputSysLogLevel(0);  // no effect: debug lines were never filtered
    FacadeWrite(MTRACE_OUTPUT_CALLBACK, 0, "debug");

    std::vector<CapturedLine> lines = capture.Lines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("abc", lines[0].text);
    EXPECT_TRUE(std::regex_match(lines[1].line,
                                 std::regex(std::string("^") + kTracePrefixPattern + "\n$")));
    // The line limit (512) counts the prefix; the newline comes on top.
    EXPECT_EQ(513u, lines[2].line.size());
    EXPECT_EQ('\n', lines[2].line.back());
    EXPECT_EQ(std::string(512 - (lines[2].line.size() - 1 - lines[2].text.size()), 'x'),
              lines[2].text);
    EXPECT_EQ("debug", lines[3].text);

    CMyTrace_::SetLogCallback(nullptr);  // no callback: the line is dropped
    FacadeWrite(MTRACE_OUTPUT_CALLBACK, 1, "lost");
    EXPECT_EQ(4u, capture.Lines().size());
}

// Tests that write trace files run in a fresh temporary working directory.
class TraceFiles : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/sw_trace_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        m_dir = pattern;
        m_previous = fs::current_path();
        fs::current_path(m_dir);
    }
    void TearDown() override {
        fs::current_path(m_previous);
        fs::remove_all(m_dir);
    }
    fs::path m_dir, m_previous;
};

const char kEndLine[] = "=============================== end of this file ====================\n";

TEST_F(TraceFiles, FacadeWritesFileAndStdoutDestinations) {
    FacadeWrite(MTRACE_OUTPUT_FILE, 2, "to the file");
    FacadeWrite(static_cast<MTRACE_OUTPUT_WHERE_TYPE>(3), 1, "any other value");
    std::string content = ReadFile("zemtrace_linux_0.log");  // flushed after every line
    std::regex shape(std::string("^\\[W:ENG\\+[0-9]+:[0-9]+\\] [0-9]+\\.[0-9]{6} to the file\n") +
                     kTracePrefixPattern + "any other value\n$");
    EXPECT_TRUE(std::regex_match(content, shape)) << content;

    testing::internal::CaptureStdout();
    FacadeWrite(MTRACE_OUTPUT_STDOUT, 3, "to stdout");
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(
        std::regex_match(out, std::regex(R"(^\[E:ENG\+[0-9]+:[0-9]+\] [0-9.]+ to stdout\n$)")))
        << out;
}

TEST_F(TraceFiles, RotatesPastTheThresholdAndEmptiesTheFileItReturnsTo) {
    CMyTraceImpl_ impl(MTRACE_LEVEL_INFO, nullptr, 512, 1, 2, 100);
    EXPECT_EQ("zemtrace", impl.m_name);
    const std::string line50(49, 'a');  // 49 characters and the newline
    const std::string line = line50 + "\n";

    impl.WriteToFile(line.c_str(), 50);
    impl.WriteToFile(line.c_str(), 50);  // exactly the threshold: no rotation
    EXPECT_EQ(0u, impl.m_fileIndex);
    EXPECT_EQ(line + line, ReadFile("zemtrace_linux_0.log"));

    impl.WriteToFile(line.c_str(), 50);  // past it: end line, close, next index
    EXPECT_EQ(1u, impl.m_fileIndex);
    EXPECT_EQ(nullptr, impl.m_file);
    EXPECT_EQ(line + line + line + kEndLine, ReadFile("zemtrace_linux_0.log"));
    EXPECT_FALSE(fs::exists("zemtrace_linux_1.log"));  // opened lazily

    const std::string b = std::string(120, 'b') + "\n";
    impl.WriteToFile(b.c_str(), 121);  // one long line fills file 1 at once
    EXPECT_EQ(b + kEndLine, ReadFile("zemtrace_linux_1.log"));
    EXPECT_EQ(0u, impl.m_fileIndex);

    const std::string c = "c\n";
    impl.WriteToFile(c.c_str(), 2);  // back to file 0, which is emptied
    EXPECT_EQ(c, ReadFile("zemtrace_linux_0.log"));
    EXPECT_EQ(2u, impl.m_fileSize);
}

TEST_F(TraceFiles, FlushesEveryIntervalAndRetriesAFailedOpen) {
    CMyTraceImpl_ impl(MTRACE_LEVEL_INFO, "flush", 512, 3, 2, 1u << 20);
    impl.WriteToFile("one\n", 4);
    impl.WriteToFile("two\n", 4);
    EXPECT_EQ("", ReadFile("flush_linux_0.log"));  // still buffered
    impl.WriteToFile("three\n", 6);
    EXPECT_EQ("one\ntwo\nthree\n", ReadFile("flush_linux_0.log"));

    CMyTraceImpl_ blocked(MTRACE_LEVEL_INFO, "missing_dir/x", 512, 1, 2, 1u << 20);
    blocked.WriteToFile("dropped\n", 8);  // cannot open: dropped, no crash
    EXPECT_EQ(nullptr, blocked.m_file);
    fs::create_directory("missing_dir");
    blocked.WriteToFile("kept\n", 5);  // the next line tries again
    EXPECT_EQ("kept\n", ReadFile("missing_dir/x_linux_0.log"));
}

TEST_F(TraceFiles, PrefixAtOrBeyondTheLineLimit) {
    TraceCapture capture;
    MTRACE_LOG_CALLBACK hostCallback = CMyTraceImpl_::s_LogInstance.load()->m_logCallback.load();

    // A prefix longer than the limit drops the line with a note on stdout.
    CMyTraceImpl_ tiny(MTRACE_LEVEL_INFO, "tiny", 10, 1, 2, 1000);
    tiny.m_logCallback = hostCallback;
    testing::internal::CaptureStdout();
    tiny.Write(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_ERROR, "text", 4);
    fflush(stdout);
    EXPECT_EQ("logwrite, outof memory\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0u, capture.Lines().size());

    // A prefix exactly as long as the limit makes a line of the prefix alone.
    // The prefix's length depends on the clock's digits: retry if it changed.
    for (int attempt = 0; attempt < 5; ++attempt) {
        capture.Clear();
        char probe[200];
        unsigned int prefixLength = tiny.GetTracePrefix(MTRACE_LEVEL_INFO, probe, sizeof(probe));
        CMyTraceImpl_ exact(MTRACE_LEVEL_INFO, "exact", prefixLength, 1, 2, 1000);
        exact.m_logCallback = hostCallback;
        exact.Write(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_INFO, "text", 4);
        std::vector<CapturedLine> lines = capture.Lines();
        if (lines.size() != 1 || lines[0].line.size() != prefixLength + 1) continue;
        EXPECT_TRUE(std::regex_match(lines[0].line,
                                     std::regex(std::string("^") + kTracePrefixPattern + "\n$")))
            << lines[0].line;
        return;
    }
    ADD_FAILURE() << "no line of the prefix alone";
}

TEST_F(TraceFiles, ConcurrentWritersKeepLinesWhole) {
    TraceCapture capture;
    CMyTraceImpl_ impl(MTRACE_LEVEL_INFO, "mt", 512, 1, 2, 20000);
    const int kThreads = 4, kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i) {
                std::string text = "writer " + std::to_string(t) + " line " + std::to_string(i);
                impl.Write(MTRACE_OUTPUT_FILE, MTRACE_LEVEL_INFO, text.data(),
                           static_cast<unsigned int>(text.size()));
                FacadeWrite(MTRACE_OUTPUT_CALLBACK, 1, text);
            }
        });
    }
    for (std::thread& t : threads) t.join();
    impl.CloseFile();

    EXPECT_EQ(static_cast<size_t>(kThreads * kLines), capture.Lines().size());
    std::regex whole(std::string("^") + kTracePrefixPattern + "writer [0-9] line [0-9]+$");
    size_t total = 0;
    for (const char* name : {"mt_linux_0.log", "mt_linux_1.log"}) {
        std::ifstream in(name);
        for (std::string l; std::getline(in, l);) {
            if (l + "\n" == kEndLine) continue;
            EXPECT_TRUE(std::regex_match(l, whole)) << l;
            ++total;
        }
    }
    // Rotation empties a file on reopen, so only the lines since then remain.
    EXPECT_GT(total, 0u);
    EXPECT_LE(total, static_cast<size_t>(kThreads * kLines));
}

}  // namespace
