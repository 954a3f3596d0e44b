// The destroyed state is final for the process, so each scenario runs in a
// child process of its own.
#include "test_support.h"

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
    webrtc::Trace::Add(webrtc::kTraceError, webrtc::kTraceModuleGeneral, 1, "lost");
    CMyTrace_::DestroyTrace();  // a second destroy is harmless
    bool noFile = unlink("zemtrace_linux_0.log") != 0;
    char dir[4096];
    if (getcwd(dir, sizeof(dir))) rmdir(dir);
    bool silent = gCalls == 0 && noFile &&
                  !CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "zemtrace", 512, 1, 2, 100) &&
                  !webrtc::Trace::CreateTrace();
    fflush(stdout);
    exit(silent ? 0 : 1);
}

// Destroyed while in use, or before anything was traced.
TEST(TraceDestroyed, GoesQuietForGood) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process per scenario
    for (bool used : {true, false}) {
        EXPECT_EXIT(
            {
                char dir[] = "/tmp/sw_trace_destroyed_XXXXXX";  // for the trace files
                if (!mkdtemp(dir) || chdir(dir) != 0) exit(3);
                CMyTrace_::SetLogCallback(&Count);
                if (used) Write(MTRACE_OUTPUT_CALLBACK);
                if (used) Write(MTRACE_OUTPUT_FILE);
                if (used && (gCalls != 1 || unlink("zemtrace_linux_0.log") != 0)) exit(2);
                CMyTrace_::DestroyTrace();
                ExitIfSilentForGood();
            },
            testing::ExitedWithCode(0), "^$")
            << used;
    }
}

}  // namespace
