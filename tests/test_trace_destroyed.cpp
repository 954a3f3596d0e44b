// The destroyed state is final for the whole process, so every scenario runs
// in a child process of its own.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "mtrace.h"
#include "trace_capture.h"

namespace {

namespace fs = std::filesystem;

int gCalls = 0;
void CountingCallback(int, int, const char*, ...) {
    ++gCalls;
}

void Write(MTRACE_OUTPUT_WHERE_TYPE aWhere, const char* aText) {
    CMyTrace_::Write(aWhere, MTRACE_LEVEL_ERROR, aText, static_cast<unsigned int>(strlen(aText)));
}

// After DestroyTrace nothing reaches any destination and nothing is created.
void ExpectSilentForGood() {
    if (CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "zemtrace", 512, 1, 2, 100) != nullptr) exit(10);
    CMyTrace_::SetLogCallback(&CountingCallback);
    Write(MTRACE_OUTPUT_CALLBACK, "after destroy");
    Write(MTRACE_OUTPUT_FILE, "after destroy");
    Write(MTRACE_OUTPUT_STDOUT, "after destroy");
    CMyTrace_::UpdateOutputSysLogLevel(3);
    CMyTrace_::DestroyTrace();  // a second destroy is harmless
    if (gCalls != 0) exit(11);
    if (fs::exists("zemtrace_linux_0.log")) exit(12);
    if (CMyTraceImpl_::s_LogInstance.load() != nullptr) exit(13);
    fflush(stdout);
}

class TraceDestroyed : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process per scenario
        char pattern[] = "/tmp/sw_trace_destroyed_XXXXXX";
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

TEST_F(TraceDestroyed, LiveFacilityGoesQuietForGood) {
    EXPECT_EXIT(
        {
            CMyTrace_::SetLogCallback(&CountingCallback);
            Write(MTRACE_OUTPUT_CALLBACK, "before destroy");
            Write(MTRACE_OUTPUT_FILE, "before destroy");
            if (gCalls != 1) exit(1);
            if (!fs::exists("zemtrace_linux_0.log")) exit(2);
            fs::remove("zemtrace_linux_0.log");
            CMyTrace_::DestroyTrace();
            gCalls = 0;
            ExpectSilentForGood();
            exit(0);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(TraceDestroyed, DestroyBeforeFirstUseGoesStraightToDestroyed) {
    EXPECT_EXIT(
        {
            CMyTrace_::DestroyTrace();
            ExpectSilentForGood();
            exit(0);
        },
        testing::ExitedWithCode(0), "^$");
}

}  // namespace
