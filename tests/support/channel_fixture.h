// A fixture for tests of the shared-memory log channel: each test keys the
// channel by a fresh temporary file, and afterwards neither the segment nor
// the semaphore may be left (any that is gets removed, so one failure does not
// spill into the next test).
#ifndef SYSTEM_WRAPPERS_TESTS_CHANNEL_FIXTURE_H_
#define SYSTEM_WRAPPERS_TESTS_CHANNEL_FIXTURE_H_

#include <errno.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "mtrace_shared_mem.h"

class ChannelKeyTest : public ::testing::Test {
protected:
    void SetUp() override {
        const int fd = mkstemp(m_path);
        ASSERT_NE(-1, fd);
        close(fd);
        gSharedMemName = m_path;
    }
    void TearDown() override {
        const int shm = shmget(ftok(m_path, 83), 0, 0);
        EXPECT_TRUE(shm == -1 && errno == ENOENT) << "segment left behind";
        const int sem = semget(ftok(m_path, 109), 1, 0);
        EXPECT_TRUE(sem == -1 && errno == ENOENT) << "semaphore left behind";
        if (shm != -1) shmctl(shm, IPC_RMID, nullptr);
        if (sem != -1) semctl(sem, 0, IPC_RMID);
        gSharedMemName = m_savedName;
        unlink(m_path);
    }

    char m_path[32] = "/tmp/sw_channel_test_XXXXXX";
    const char* const m_savedName = gSharedMemName;
};

#endif  // SYSTEM_WRAPPERS_TESTS_CHANNEL_FIXTURE_H_
