// The shared-memory log channel: its notes on standard output, its lock, serialised
// writers, and that no segment or semaphore outlives a test. Ring placement, levels
// and readers are checked against a model by fuzz/fuzz_shared_mem.cpp, whose corpus
// the suite replays; test_shmlog and test_demo read the channel from other processes.
#include "test_support.h"

namespace {

// At most aSize bytes; "<failed>" for -1.
std::string Get(SharedMemImpl& aShm, unsigned int aSize = 1000) {
    std::string buffer(aSize + 1, 'x');
    const int count = aShm.Read(reinterpret_cast<unsigned char*>(&buffer[0]), aSize);
    return count < 0 ? "<failed>" : buffer[count] == 0 ? buffer.substr(0, count) : "<unterminated>";
}

using SharedMemTest = ChannelKeyTest;

TEST_F(SharedMemTest, NotesOverlongTextBadLevelsAndTheLockOfAnUninitialisedObject) {
    SharedMemImpl shm(true);
    SharedMemInfoByLog* header = static_cast<SharedMemInfoByLog*>(shm._shbAddr);
    const int semId = shm._semaphore._semId;
    testing::internal::CaptureStdout();
    EXPECT_EQ(static_cast<int>(shm._shLen - 1), Put(shm, std::string(shm._shLen, 'z')));
    EXPECT_EQ(
        "write to much data to shared memory once, conlen=" + std::to_string(shm._shLen) + "\n",
        testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, shm.UpdateFlag(0, MTRACE_LEVEL_ERROR));

    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, shm.UpdateFlag(0, 5));
    EXPECT_EQ(3u, header->m_level);
    EXPECT_EQ(1, semctl(semId, 0, GETVAL));  // released

    // Uninitialised, every call fails; UpdateFlag then keeps the lock.
    EXPECT_EQ(0, shm.DeInitLogInfo());
    EXPECT_EQ(-1, Put(shm, "x"));
    EXPECT_EQ("<failed>", Get(shm));
    EXPECT_EQ(1, semctl(semId, 0, GETVAL));
    EXPECT_EQ(-1, shm.UpdateFlag(0, MTRACE_LEVEL_ERROR));
    EXPECT_EQ(0, semctl(semId, 0, GETVAL));  // still taken
    EXPECT_EQ(
        "update flag, no flag update\nwrite shared memory, currptr=null\n"
        "read shared memory, currptr=nullupdate flag, not inited\n",
        testing::internal::GetCapturedStdout());
    // Only removing the channel frees it; the destructor then finds it gone.
    EXPECT_EQ(0, semctl(semId, 0, IPC_RMID));
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, Put(shm, "x"));  // the lock is gone, so nothing goes further
    EXPECT_EQ("write, semphore P operation failed\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, shmctl(shm._shmId, IPC_RMID, nullptr));
}

TEST_F(SharedMemTest, ThreadsSharingOneObjectAreSerialised) {
    SharedMemImpl shm(true), reader(false);
    RunThreads(2, [&shm](int aThread) {
        for (int i = 0; i < 200; ++i) Put(shm, aThread ? "bbbbbbb\n" : "aaaaaaa\n");
    });
    const std::string text = Get(reader, 5000);
    int whole = 0;  // lines that no other write cut into
    for (size_t i = 0; i < text.size(); i += 8)
        whole += text.compare(i, 8, "aaaaaaa\n") == 0 || text.compare(i, 8, "bbbbbbb\n") == 0;
    EXPECT_EQ(3200u, text.size());
    EXPECT_EQ(400, whole);
}

}  // namespace
