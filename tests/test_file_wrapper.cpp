// FileWrapper on real files in a fresh temporary directory: round trips, the
// size limit, looping reads, refusals, adopted streams, shared use.
#include "test_support.h"

namespace {

using webrtc::FileWrapper;

class FileWrapperTest : public TempDirTest {
protected:
    std::unique_ptr<FileWrapper> m_file{FileWrapper::Create()};
};

TEST_F(FileWrapperTest, WriteUnderTheLimitThenReadLoopingAndOnce) {
    ASSERT_EQ(0, m_file->SetMaxFileSize(10));
    ASSERT_EQ(0, m_file->OpenFile(m_path.c_str(), false));
    EXPECT_TRUE(m_file->Write("0123456", 7));
    EXPECT_TRUE(m_file->Write("", 0));
    EXPECT_FALSE(m_file->Write("abcd", 4));  // would pass the limit: nothing is written
    EXPECT_EQ(-1, m_file->WriteText("%s", "abcd"));
    EXPECT_EQ(3, m_file->WriteText("%d%s", 78, "9"));
    EXPECT_EQ(0, m_file->CloseFile());
    EXPECT_EQ(-1, m_file->CloseFile());

    // A short read at the end, and a read ending exactly there, both start over.
    char buf[32];
    ASSERT_EQ(0, m_file->OpenFile(m_path.c_str(), true, true));
    EXPECT_FALSE(m_file->Write("x", 1));
    EXPECT_EQ(-1, m_file->Read(buf, -1));
    EXPECT_EQ(-1, m_file->Read(nullptr, 1));
    std::string looped;
    for (int size : {4, 4, 4, 5, 5, 5}) looped.append(buf, m_file->Read(buf, size));
    EXPECT_EQ("0123456789012345678901234", looped);
    EXPECT_EQ(0, m_file->CloseFile());

    // Without looping the end stays the end, until Rewind.
    ASSERT_EQ(0, m_file->OpenFile(m_path.c_str(), true));
    EXPECT_EQ(10, m_file->Read(buf, sizeof(buf)));
    EXPECT_EQ(0, m_file->Read(buf, sizeof(buf)));
    EXPECT_EQ(0, m_file->Rewind());
    EXPECT_EQ(10, m_file->Read(buf, sizeof(buf)));
    EXPECT_EQ(0, m_file->CloseFile());

    // The count restarts with each open; 0 lifts the limit.
    ASSERT_EQ(0, m_file->OpenFile(m_path.c_str(), false, false, true));
    EXPECT_EQ(10, m_file->WriteText("%010d", 7));
    EXPECT_EQ(0, m_file->SetMaxFileSize(0));
    EXPECT_TRUE(m_file->Write(std::string(5000, 'y').data(), 5000));
}

TEST_F(FileWrapperTest, RefusalsAndNames) {
    char buf[FileWrapper::kMaxFileNameSize + 1];
    EXPECT_FALSE(m_file->Open());
    EXPECT_EQ(-1, m_file->Read(buf, 1));
    EXPECT_FALSE(m_file->Write("x", 1));
    EXPECT_EQ(-1, m_file->FileName(buf, sizeof(buf)));
    EXPECT_EQ(-1, m_file->Flush());
    EXPECT_EQ(-1, m_file->Rewind());
    EXPECT_EQ(-1, m_file->OpenFile(nullptr, false));
    EXPECT_EQ(-1, m_file->OpenFile(m_path.c_str(), true));  // absent
    EXPECT_EQ(-1, m_file->OpenFromFileHandle(nullptr, true, false));

    // 1023 characters is the longest name accepted.
    std::string name = m_dir;
    while (FileWrapper::kMaxFileNameSize - name.size() > 250) name += "/" + std::string(200, 'd');
    std::filesystem::create_directories(name);
    name += "/" + std::string(FileWrapper::kMaxFileNameSize - 2 - name.size(), 'f');
    EXPECT_EQ(-1, m_file->OpenFile((name + "g").c_str(), false));
    ASSERT_EQ(0, m_file->OpenFile(name.c_str(), false));
    EXPECT_EQ(-1, m_file->OpenFile(m_path.c_str(), false));
    EXPECT_EQ(-1, m_file->OpenFromFileHandle(stdout, false, false));
    EXPECT_EQ(-1, m_file->FileName(nullptr, sizeof(buf)));
    EXPECT_EQ(-1, m_file->FileName(buf, name.size()));
    ASSERT_EQ(0, m_file->FileName(buf, name.size() + 1));
    EXPECT_EQ(name, buf);
    EXPECT_FALSE(m_file->Write(nullptr, 1));
    EXPECT_FALSE(m_file->Write("x", -1));
    EXPECT_FALSE(std::filesystem::exists(name + "g") || std::filesystem::exists(m_path));
}

TEST_F(FileWrapperTest, AdoptedStreamsManagedOrNot) {
    FILE* stream = fopen(m_path.c_str(), "w+");
    ASSERT_EQ(0, m_file->OpenFromFileHandle(stream, false, false));
    const int fd = fileno(stream);
    char buf[8] = "x";
    EXPECT_EQ(0, m_file->FileName(buf, 1));
    EXPECT_STREQ("", buf);
    EXPECT_TRUE(m_file->Write("abc", 3));
    EXPECT_EQ(0, m_file->CloseFile());
    ASSERT_EQ(1u, fwrite("d", 1, 1, stream));  // still the caller's, still open
    rewind(stream);

    ASSERT_EQ(0, m_file->OpenFromFileHandle(stream, true, true));
    EXPECT_TRUE(m_file->Open());
    EXPECT_EQ("abcd", std::string(buf, m_file->Read(buf, 8)));
    m_file.reset();  // closes the stream it manages
    EXPECT_TRUE(fcntl(fd, F_GETFD) == -1 && errno == EBADF);
}

TEST_F(FileWrapperTest, ThreadsShareOneObjectUnderTheLimit) {
    ASSERT_EQ(0, m_file->OpenFile(m_path.c_str(), false));
    ASSERT_EQ(0, m_file->SetMaxFileSize(10000));
    std::atomic<int> accepted{0};
    RunThreads(4, [&](int) {
        for (int i = 0; i < 500; ++i) {
            accepted += m_file->Write("abcdefghi\n", 10);
            accepted += m_file->WriteText("%09d\n", i) == 10;
        }
    });
    EXPECT_EQ(1000, accepted.load());
    EXPECT_EQ(0, m_file->CloseFile());
    EXPECT_EQ(10000u, std::filesystem::file_size(m_path));
}

}  // namespace
