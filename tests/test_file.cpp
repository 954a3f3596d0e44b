// File wrappers: both back ends, including where they differ on purpose.
#include <stdio.h>

#include "test_support.h"

namespace {

class FileTest : public TempDirTest {
protected:
    void Put(const std::string& aText) { std::ofstream(m_path) << aText; }
    std::string Content() const { return ReadFile(m_path); }
    static const unsigned char* Bytes(const char* aText) {
        return reinterpret_cast<const unsigned char*>(aText);
    }
    TraceCapture trace_;
};

TEST_F(FileTest, FlagsMeanTruncateForUnixAndAppendForStd) {
    CZemFileUnix unixFile;
    CZemFileStd stdFile;
    EXPECT_EQ(-1, unixFile.OpenFile(m_path.c_str(), static_cast<FILE_RW_TYPE>(3), false, false));
    EXPECT_EQ(-1, stdFile.OpenFile(m_path.c_str(), static_cast<FILE_RW_TYPE>(3), true, true));
    EXPECT_NE(0, access(m_path.c_str(), F_OK));  // nothing was created

    Put("abcdef");
    ASSERT_EQ(0, unixFile.OpenFile(m_path.c_str(), FILE_RW_WRITE, false, true));
    EXPECT_EQ(2, unixFile.WriteTo(Bytes("XY"), 2));  // keeps the rest, starts at 0
    EXPECT_EQ(0, unixFile.CloseFile());
    EXPECT_EQ("XYcdef", Content());
    ASSERT_EQ(0, unixFile.OpenFile(m_path.c_str(), FILE_RW_READWRITE, true, false));
    EXPECT_EQ(0, unixFile.CloseFile());
    EXPECT_EQ("", Content());

    Put("abc");
    ASSERT_EQ(0, stdFile.OpenFile(m_path.c_str(), FILE_RW_WRITE, true, false));
    EXPECT_EQ(1, stdFile.WriteTo(Bytes("de"), 2));  // whole blocks, not bytes
    EXPECT_EQ(0, stdFile.CloseFile());
    EXPECT_EQ("abcde", Content());
    ASSERT_EQ(0, stdFile.OpenFile(m_path.c_str(), FILE_RW_READWRITE, false, true));
    EXPECT_EQ(0, stdFile.CloseFile());
    EXPECT_EQ("", Content());

    EXPECT_EQ(-1, unixFile.OpenFile((m_dir + "/missing/x").c_str(), FILE_RW_READ, false, false));
    EXPECT_EQ(ENOENT, errno);  // left as open() set it, after the trace line
    EXPECT_TRUE(trace_.Traced(kError, "[FILE IO can not open file error:]2 FILE name:" + m_dir +
                                          "/missing/x" + This(&unixFile)));
}

TEST_F(FileTest, ReadWriteResultsAndWrongDirection) {
    CZemFileWrapper* created = CZemFileWrapper::Create();
    auto* unixFile = static_cast<CZemFileUnix*>(created);
    EXPECT_EQ(-1, unixFile->m_fd);
    unsigned char buffer[128] = {};
    std::string hundred(100, 'h');

    ASSERT_EQ(0, created->OpenFile(m_path.c_str(), FILE_RW_WRITE, true, false));
    EXPECT_EQ(100, created->WriteTo(Bytes(hundred.c_str()), 100));
    EXPECT_EQ(-1, created->ReadFrom(buffer, 10));
    EXPECT_EQ(1u, trace_.CountMatching(kError, R"(\[FILE IO READ  error:\]-?[0-9]+, this=)" +
                                                   This(created).substr(7)));
    EXPECT_EQ(-1, created->WriteTo(Bytes("x"), -1));
    EXPECT_EQ(0, created->CloseFile());
    EXPECT_EQ(-1, created->CloseFile());
    EXPECT_EQ(-1, created->WriteTo(Bytes("x"), 1));

    ASSERT_EQ(0, created->OpenFile(m_path.c_str(), FILE_RW_READ, true, false));
    EXPECT_EQ(-1, created->WriteTo(Bytes("x"), 1));  // read-only
    EXPECT_EQ(100, created->ReadFrom(buffer, 128));
    EXPECT_EQ(0, created->ReadFrom(buffer, 128));  // end of file
    EXPECT_EQ(0, created->CloseFile());
    delete unixFile;

    CZemFileStd stdFile;
    EXPECT_EQ(-1, stdFile.ReadFrom(buffer, 1));
    EXPECT_EQ(-1, stdFile.WriteTo(Bytes("x"), 1));
    ASSERT_EQ(0, stdFile.OpenFile(m_path.c_str(), FILE_RW_READWRITE, true, true));
    EXPECT_EQ(1, stdFile.WriteTo(Bytes(hundred.c_str()), 100));
    EXPECT_EQ(-1, stdFile.ReadFrom(nullptr, 4));
    EXPECT_EQ(0, stdFile.CloseFile());
    EXPECT_EQ(-1, stdFile.CloseFile());
    EXPECT_EQ(200u, Content().size());
}

TEST_F(FileTest, SeekingAndSizes) {
    Put(std::string(1000, 's'));
    CZemFileUnix unixFile;
    CZemFileStd stdFile;
    EXPECT_EQ(-1, unixFile.SeekPos(0, SEEK_FROM_BEGIN));
    EXPECT_EQ(-1, unixFile.GetFileSize());
    EXPECT_EQ(-1, stdFile.SeekPos(0, SEEK_FROM_BEGIN));
    EXPECT_EQ(-1, stdFile.GetFileSize());
    ASSERT_EQ(0, unixFile.OpenFile(m_path.c_str(), FILE_RW_READ, false, false));
    ASSERT_EQ(0, stdFile.OpenFile(m_path.c_str(), FILE_RW_READ, false, false));

    for (CZemFileWrapper* file :
         {static_cast<CZemFileWrapper*>(&unixFile), static_cast<CZemFileWrapper*>(&stdFile)}) {
        EXPECT_EQ(1000, file->SeekPos(0, SEEK_FROM_END));
        EXPECT_EQ(990, file->SeekPos(-10, SEEK_FROM_CURRENT));
        EXPECT_EQ(-1, file->SeekPos(0, static_cast<SEEK_FROM>(3)));
        EXPECT_EQ(1000, file->GetFileSize());
        EXPECT_EQ(990, file->SeekPos(0, SEEK_FROM_CURRENT));  // size left the position alone
    }
    // Beyond 2 GiB the descriptor class answers a wrapped 32-bit position.
    const long long threeGiB = 3LL << 30;
    EXPECT_EQ(static_cast<int>(static_cast<unsigned int>(threeGiB)),
              unixFile.SeekPos(threeGiB, SEEK_FROM_BEGIN));
    EXPECT_EQ(threeGiB, stdFile.SeekPos(threeGiB, SEEK_FROM_BEGIN));
    EXPECT_EQ(0, unixFile.CloseFile());
    EXPECT_EQ(0, stdFile.CloseFile());
}

}  // namespace
