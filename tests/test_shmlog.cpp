// The log tool run as a child against a channel that this process writes:
// dump, tail and level, and the refusals that must neither hang, create
// anything nor leave anything behind.
#include "test_support.h"

namespace {

std::string Line(int aNumber) {
    return "warning " + std::to_string(aNumber) + "\n";
}

// True when aText is Line(k), Line(k + 1), ... for some k, ending at aLast
// (any end when aLast < 0).
bool ConsecutiveLines(const std::string& aText, int aLast = -1) {
    if (aText.rfind("warning ", 0) != 0) return false;
    std::string expected;
    int next = atoi(aText.c_str() + 8);
    while (expected.size() < aText.size()) expected += Line(next++);
    return expected == aText && (aLast < 0 || next == aLast + 1);
}

class ShmlogTest : public ChannelKeyTest {
protected:
    // Runs the tool on this test's key (a later --key wins) to its end, which must be aExit.
    std::unique_ptr<ChildProgram> Run(std::vector<std::string> aArgs, int aExit = 0) {
        aArgs.insert(aArgs.begin(), {SW_SHMLOG_PATH, "--key", m_path});
        auto child = std::make_unique<ChildProgram>();
        EXPECT_TRUE(child->Run(aArgs)) << "did not run or end";
        EXPECT_EQ(aExit, child->ExitCode()) << aArgs.back() << ": " << child->Err();
        return child;
    }
    // Starts a tail and writes numbered warnings every ~50 ms until it prints a line.
    bool StartFedTail(ChildProgram& aTail, SharedMemImpl& aWriter) {
        if (!aTail.Start({SW_SHMLOG_PATH, "--key", m_path, "tail"})) return false;
        int n = 0;
        return WaitUntil(
            [&] {
                Put(aWriter, Line(n++));
                return aTail.WaitForOutput(
                    [](const std::string& aOut) { return aOut.find('\n') != std::string::npos; },
                    std::chrono::milliseconds(50));
            },
            std::chrono::seconds(60));
    }
};

TEST_F(ShmlogTest, RefusalsDumpLevelTailAndAVanishingChannel) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"frobnicate"}, {"--bogus", "dump"}, {"level"}, {"level", "bogus"}, {"dump", "--key"}})
        EXPECT_NE(std::string::npos, Run(args, 2)->Err().find("usage:")) << args.back();

    const std::string missing = std::string(m_path) + ".missing";
    for (const std::string& key : {missing, std::string(m_path)})
        EXPECT_EQ("sw_shmlog: no shared-memory log channel under " + key + "\n",
                  Run({"--key", key, "dump"}, 1)->Err());
    EXPECT_FALSE(std::filesystem::exists(missing)) << "the tool created the key file";
    EXPECT_TRUE(shmget(ftok(m_path, 83), 0, 0) == -1 && errno == ENOENT) << "the tool created one";

    SharedMemImpl writer(true);
    int written = 0;
    for (; written < 2; ++written) Put(writer, Line(written));
    EXPECT_EQ(Line(0) + Line(1), Run({"dump"})->Out());

    // Once the ring has wrapped, the dump starts at the oldest whole line.
    for (unsigned int total = 0; total <= writer._shLen; ++written)
        total += Put(writer, Line(written));
    const std::string wrapped = Run({"dump"})->Out();
    EXPECT_TRUE(ConsecutiveLines(wrapped, written - 1)) << wrapped.substr(0, 100);
    EXPECT_GT(wrapped.size(), writer._shLen - 100);

    EXPECT_EQ("level set to error\n", Run({"level", "error"})->Out());
    EXPECT_EQ(0, Put(writer, "dropped\n", MTRACE_LEVEL_WARNING));
    EXPECT_EQ(5, Put(writer, "kept\n"));

    // Tail prints only whole lines written after it started (not "kept"), until terminated.
    ChildProgram tail;
    ASSERT_TRUE(StartFedTail(tail, writer)) << tail.Err();
    tail.Signal(SIGTERM);
    ASSERT_TRUE(tail.Finish());
    EXPECT_EQ(0, tail.ExitCode()) << tail.Err();
    EXPECT_TRUE(ConsecutiveLines(tail.Out())) << tail.Out();

    ASSERT_EQ(0, writer._semaphore._P());  // as if its holder had died
    const auto locked = Run({"level", "error"}, 1);
    ASSERT_EQ(0, writer._semaphore._V());
    EXPECT_EQ("sw_shmlog: the channel under " + std::string(m_path) +
                  " is locked (a process may have died holding it)\n",
              locked->Err());

    ChildProgram vanishing;
    ASSERT_TRUE(StartFedTail(vanishing, writer)) << vanishing.Err();
    ASSERT_EQ(0, semctl(writer._semaphore._semId, 0, IPC_RMID));
    writer._semaphore.Reset();
    ASSERT_TRUE(vanishing.Finish());
    EXPECT_EQ(1, vanishing.ExitCode());
    EXPECT_NE(std::string::npos, vanishing.Err().find(" disappeared\n")) << vanishing.Err();
}

}  // namespace
