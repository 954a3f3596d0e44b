// The log tool run as a child against a channel that this process writes:
// dump, tail and level, and the refusals that must neither hang, create
// anything nor leave anything behind.
#include <sys/stat.h>

#include "test_support.h"

namespace {

std::string Line(int aNumber) {
    return "warning " + std::to_string(aNumber) + "\n";
}

// True when aText is Line(k), Line(k + 1), ... for some k, ending at aLast
// (any end when aLast < 0).
bool ConsecutiveLines(const std::string& aText, int aLast = -1) {
    std::istringstream in(aText);
    std::string line;
    int next = -1;
    while (std::getline(in, line)) {
        if (next < 0 && line.rfind("warning ", 0) == 0) next = atoi(line.c_str() + 8);
        if (line + "\n" != Line(next)) return false;
        ++next;
    }
    return next > 0 && aText.back() == '\n' && (aLast < 0 || next == aLast + 1);
}

class ShmlogTest : public ChannelKeyTest {
protected:
    struct Result {
        int code;
        std::string out, err;
    };
    // Runs the tool on aKey (this test's key when empty) to its end.
    Result Run(std::vector<std::string> aArgs, std::string aKey = "") {
        aArgs.insert(aArgs.begin(), {SW_SHMLOG_PATH, "--key", aKey.empty() ? m_path : aKey});
        ChildProgram child;
        if (!child.Run(aArgs)) return {-2, "", "did not run or end"};
        return {child.ExitCode(), child.Out(), child.Err()};
    }
    // Writes numbered warnings every ~50 ms until aChild prints a line.
    static bool FeedUntilLine(SharedMemImpl& aWriter, ChildProgram& aChild) {
        int n = 0;
        return WaitUntil(
            [&] {
                Put(aWriter, Line(n++));
                return aChild.WaitForOutput(
                    [](const std::string& aOut) { return aOut.find('\n') != std::string::npos; },
                    std::chrono::milliseconds(50));
            },
            std::chrono::seconds(60));
    }
};

TEST_F(ShmlogTest, DumpPrintsOldestFirstAndLevelSetsTheThreshold) {
    SharedMemImpl writer(true);
    ASSERT_TRUE(writer.IsGood());
    Put(writer, Line(0));
    Put(writer, Line(1));
    Result r = Run({"dump"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ(Line(0) + Line(1), r.out);

    // Once the ring has wrapped, the dump starts at the oldest whole line.
    int written = 2;
    for (unsigned int total = 0; total <= writer._shLen; ++written)
        total += Put(writer, Line(written));
    r = Run({"dump"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_TRUE(ConsecutiveLines(r.out, written - 1)) << r.out.substr(0, 100);
    EXPECT_GT(r.out.size(), writer._shLen - 100);
    EXPECT_LT(r.out.size(), writer._shLen);

    r = Run({"level", "error"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("level set to error\n", r.out);
    EXPECT_EQ(0, Put(writer, "dropped\n", MTRACE_LEVEL_WARNING));
    EXPECT_EQ(5, Put(writer, "kept\n"));
    EXPECT_EQ(2, Run({"level", "bogus"}).code);
}

TEST_F(ShmlogTest, TailPrintsOnlyNewWholeLinesUntilTerminated) {
    SharedMemImpl writer(true);
    ASSERT_TRUE(writer.IsGood());
    Put(writer, "before tail\n");
    ChildProgram tail;
    ASSERT_TRUE(tail.Start({SW_SHMLOG_PATH, "--key", m_path, "tail"}));
    ASSERT_TRUE(FeedUntilLine(writer, tail)) << tail.Err();
    tail.Signal(SIGTERM);
    ASSERT_TRUE(tail.Finish());
    EXPECT_EQ(0, tail.ExitCode()) << tail.Err();
    EXPECT_EQ(std::string::npos, tail.Out().find("before tail"));
    EXPECT_TRUE(ConsecutiveLines(tail.Out())) << tail.Out();
}

TEST_F(ShmlogTest, RefusesBadUsageAndMissingLockedOrVanishingChannels) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"frobnicate"}, {"--bogus", "dump"}, {"level"}, {"dump", "--key"}}) {
        const Result r = Run(args);
        EXPECT_EQ(2, r.code) << args.back();
        EXPECT_NE(std::string::npos, r.err.find("usage:")) << args.back();
    }

    const std::string missing = std::string(m_path) + ".missing";
    for (const std::string& key : {missing, std::string(m_path)}) {
        const Result r = Run({"dump"}, key);
        EXPECT_EQ(1, r.code);
        EXPECT_EQ("sw_shmlog: no shared-memory log channel under " + key + "\n", r.err);
    }
    struct stat info;
    EXPECT_NE(0, stat(missing.c_str(), &info)) << "the tool created the key file";
    EXPECT_TRUE(shmget(ftok(m_path, 83), 0, 0) == -1 && errno == ENOENT) << "the tool created one";

    std::unique_ptr<SharedMemImpl> writer(new SharedMemImpl(true));
    ASSERT_TRUE(writer->IsGood());
    ASSERT_EQ(0, writer->_semaphore._P());  // as if its holder had died
    const Result locked = Run({"level", "error"});
    ASSERT_EQ(0, writer->_semaphore._V());
    EXPECT_EQ(1, locked.code);
    EXPECT_EQ("sw_shmlog: the channel under " + std::string(m_path) +
                  " is locked (a process may have died holding it)\n",
              locked.err);

    ChildProgram tail;
    ASSERT_TRUE(tail.Start({SW_SHMLOG_PATH, "--key", m_path, "tail"}));
    ASSERT_TRUE(FeedUntilLine(*writer, tail)) << tail.Err();
    ASSERT_EQ(0, semctl(writer->_semaphore._semId, 0, IPC_RMID));
    writer->_semaphore.Reset();
    ASSERT_TRUE(tail.Finish());
    EXPECT_EQ(1, tail.ExitCode());
    EXPECT_NE(std::string::npos, tail.Err().find(" disappeared\n")) << tail.Err();
    testing::internal::CaptureStdout();  // the writer's complaints about its lost semaphore
    writer.reset();
    testing::internal::GetCapturedStdout();
}

}  // namespace
