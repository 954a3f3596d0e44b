// The destroyed state is final for the process, so each scenario runs in a
// child process of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "mtrace.h"

namespace {

int gCalls = 0;
void Count(int, int, const char*, ...) {
    ++gCalls;
}

void Write(MTRACE_OUTPUT_WHERE_TYPE aWhere) {
    CMyTrace_::Write(aWhere, MTRACE_LEVEL_ERROR, "line", 4);
}

// Exits 0 only if nothing reaches any destination and nothing is created.
void ExitIfSilentForGood() {
    gCalls = 0;
    CMyTrace_::SetLogCallback(&Count);
    Write(MTRACE_OUTPUT_CALLBACK);
    Write(MTRACE_OUTPUT_FILE);
    Write(MTRACE_OUTPUT_STDOUT);
    CMyTrace_::DestroyTrace();  // a second destroy is harmless
    bool silent = gCalls == 0 && access("zemtrace_linux_0.log", F_OK) != 0 &&
                  !CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "zemtrace", 512, 1, 2, 100);
    fflush(stdout);
    exit(silent ? 0 : 1);
}

class TraceDestroyed : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        char pattern[] = "/tmp/sw_trace_destroyed_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        m_dir = pattern;
        ASSERT_EQ(0, chdir(m_dir.c_str()));
    }
    void TearDown() override {
        unlink((m_dir + "/zemtrace_linux_0.log").c_str());
        rmdir(m_dir.c_str());
    }
    std::string m_dir;
};

TEST_F(TraceDestroyed, LiveFacilityGoesQuietForGood) {
    EXPECT_EXIT(
        {
            CMyTrace_::SetLogCallback(&Count);
            Write(MTRACE_OUTPUT_CALLBACK);
            Write(MTRACE_OUTPUT_FILE);
            if (gCalls != 1 || unlink("zemtrace_linux_0.log") != 0) exit(2);
            CMyTrace_::DestroyTrace();
            ExitIfSilentForGood();
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(TraceDestroyed, DestroyBeforeFirstUse) {
    EXPECT_EXIT(
        {
            CMyTrace_::DestroyTrace();
            ExitIfSilentForGood();
        },
        testing::ExitedWithCode(0), "^$");
}

}  // namespace
