// File wrappers: their failure lines, bad lengths, name limits and shared use.
// Modes, transfers, seeks and the size limit are checked against a model of the
// file by fuzz/fuzz_file.cpp, whose corpus the suite replays.
#include "test_support.h"

namespace {

using FileTest = TempDirTest;
using webrtc::FileWrapper;

TEST_F(FileTest, FailureLinesKeepErrnoAndBadLengthsAreRefused) {
    TraceCapture trace;
    CZemFileUnix unixFile;
    EXPECT_EQ(-1, unixFile.OpenFile((m_dir + "/missing/x").c_str(), FILE_RW_READ, false, false));
    EXPECT_EQ(ENOENT, errno);  // left as open() set it, after the trace line
    EXPECT_TRUE(trace.Traced(kError, "[FILE IO can not open file error:]2 FILE name:" + m_dir +
                                         "/missing/x" + This(&unixFile)));

    const unsigned char data[] = "x";
    unsigned char buffer[4];
    ASSERT_EQ(0, unixFile.OpenFile(m_path.c_str(), FILE_RW_WRITE, true, false));
    EXPECT_EQ(-1, unixFile.WriteTo(data, -1));
    errno = 0;
    EXPECT_EQ(-1, unixFile.ReadFrom(buffer, 1));
    EXPECT_TRUE(trace.Traced(kError, "[FILE IO READ  error:]0" + This(&unixFile)));
    EXPECT_EQ(0, unixFile.CloseFile());
    ASSERT_EQ(0, unixFile.OpenFile(m_path.c_str(), FILE_RW_READ, false, false));
    EXPECT_EQ(-1, unixFile.ReadFrom(buffer, -1));
    EXPECT_TRUE(
        trace.Traced(kError, "[FILE IO can not read file error:]22 read len:-1" + This(&unixFile)));
    EXPECT_EQ(0, unixFile.CloseFile());

    CZemFileStd stdFile;
    ASSERT_EQ(0, stdFile.OpenFile(m_path.c_str(), FILE_RW_READWRITE, false, false));
    EXPECT_EQ(-1, stdFile.ReadFrom(nullptr, 4));
    EXPECT_EQ(-1, stdFile.WriteTo(data, -1));
    EXPECT_EQ(0, stdFile.CloseFile());

    std::unique_ptr<FileWrapper> file(FileWrapper::Create());
    EXPECT_EQ(-1, file->Flush());
    EXPECT_EQ(-1, file->Rewind());
    EXPECT_EQ(-1, file->OpenFromFileHandle(nullptr, true, false));
    ASSERT_EQ(0, file->OpenFile(m_path.c_str(), false));
    EXPECT_FALSE(file->Write(nullptr, 1));
    EXPECT_FALSE(file->Write("x", -1));
    EXPECT_EQ(-1, file->Read(buffer, 1));  // written, not read
    EXPECT_EQ(0, file->CloseFile());
    ASSERT_EQ(0, file->OpenFile(m_path.c_str(), true));
    EXPECT_EQ(-1, file->Read(buffer, -1));
    EXPECT_EQ(-1, file->Read(nullptr, 1));
}

TEST_F(FileTest, FileWrapperNamesUpTo1023Characters) {
    std::unique_ptr<FileWrapper> file(FileWrapper::Create());
    char buf[FileWrapper::kMaxFileNameSize + 1];
    EXPECT_EQ(-1, file->FileName(buf, sizeof(buf)));  // nothing open
    std::string name = m_dir;
    while (FileWrapper::kMaxFileNameSize - name.size() > 250) name += "/" + std::string(200, 'd');
    std::filesystem::create_directories(name);
    name += "/" + std::string(FileWrapper::kMaxFileNameSize - 2 - name.size(), 'f');
    EXPECT_EQ(-1, file->OpenFile((name + "g").c_str(), false));
    EXPECT_FALSE(std::filesystem::exists(name + "g"));
    ASSERT_EQ(0, file->OpenFile(name.c_str(), false));
    EXPECT_EQ(-1, file->OpenFromFileHandle(stdout, false, false));  // one file at a time
    EXPECT_EQ(-1, file->FileName(nullptr, sizeof(buf)));
    EXPECT_EQ(-1, file->FileName(buf, name.size()));  // no room for the terminator
    ASSERT_EQ(0, file->FileName(buf, name.size() + 1));
    EXPECT_EQ(name, buf);
}

TEST_F(FileTest, ThreadsShareOneFileWrapperUnderTheLimit) {
    std::unique_ptr<FileWrapper> file(FileWrapper::Create());
    ASSERT_EQ(0, file->OpenFile(m_path.c_str(), false));
    ASSERT_EQ(0, file->SetMaxFileSize(10000));
    std::atomic<int> accepted{0};
    RunThreads(4, [&](int) {
        for (int i = 0; i < 500; ++i) {
            accepted += file->Write("abcdefghi\n", 10);
            accepted += file->WriteText("%09d\n", i) == 10;
        }
    });
    EXPECT_EQ(1000, accepted.load());
    EXPECT_EQ(0, file->CloseFile());
    EXPECT_EQ(10000u, std::filesystem::file_size(m_path));
}

}  // namespace
