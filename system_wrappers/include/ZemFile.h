// File access behind one small interface, over POSIX descriptors
// (CZemFileUnix, what Create() returns) or C streams (CZemFileStd). Both return
// 0 or a count on success and -1 on failure, but they differ on purpose in a
// few details, noted below; each class is the reference for its own callers.
#ifndef SYSTEM_WRAPPERS_ZEM_FILE_H_
#define SYSTEM_WRAPPERS_ZEM_FILE_H_

#include <stdio.h>

#include "sw_export.h"

// A fixed underlying type lets callers pass any int value (out-of-range ones are refused).
enum FILE_RW_TYPE : int {
    FILE_RW_READ = 0,
    FILE_RW_WRITE = 1,      // write only, created if missing
    FILE_RW_READWRITE = 2,  // created if missing
};

enum SEEK_FROM : int {
    SEEK_FROM_BEGIN = 0,
    SEEK_FROM_CURRENT = 1,
    SEEK_FROM_END = 2,
};

// Objects are destroyed through their concrete type, and never close
// themselves: owners call CloseFile before deleting.
class SW_EXPORT CZemFileWrapper {
public:
    // A new, closed CZemFileUnix owned by the caller (delete it as a CZemFileUnix).
    static CZemFileWrapper* Create();

    virtual int OpenFile(const char* aPath, FILE_RW_TYPE aType, bool aFlag1, bool aFlag2) = 0;
    virtual int ReadFrom(unsigned char* aBuffer, int aLength) = 0;
    virtual int WriteTo(const unsigned char* aData, int aLength) = 0;
    virtual long long SeekPos(long long aOffset, SEEK_FROM aFrom) = 0;
    virtual int CloseFile() = 0;
    virtual long long GetFileSize() = 0;

protected:
    // Not virtual, so deleting through the interface does not compile.
    ~CZemFileWrapper() = default;
};

// Over a descriptor. OpenFile(path, type, truncate, unused): for write and
// read-write, true empties the file and false keeps it, writing from the start.
// Open and read failures are traced. SeekPos narrows the position to 32 bits.
class SW_EXPORT CZemFileUnix final : public CZemFileWrapper {
public:
    CZemFileUnix() : m_fd(-1), m_rwType(FILE_RW_READ) {}

    // A second open without a close leaks the first descriptor.
    int OpenFile(const char* aPath, FILE_RW_TYPE aType, bool aTruncate, bool aUnused) override;
    // -1 on a write-only file; 0 at end of file.
    int ReadFrom(unsigned char* aBuffer, int aLength) override;
    // -1 on a read-only file; otherwise the bytes written.
    int WriteTo(const unsigned char* aData, int aLength) override;
    // Positions of 2 GiB and more come back wrapped to a signed 32-bit value.
    long long SeekPos(long long aOffset, SEEK_FROM aFrom) override;
    int CloseFile() override;
    long long GetFileSize() override;

    int m_fd;
    FILE_RW_TYPE m_rwType;
};

// Over a C stream. OpenFile(path, type, append, binary): for write and
// read-write, true appends and false empties the file (the reverse of
// CZemFileUnix). WriteTo answers whole blocks (1 or 0), not bytes. Nothing is
// traced.
class SW_EXPORT CZemFileStd final : public CZemFileWrapper {
public:
    CZemFileStd() : m_fp(nullptr) {}

    int OpenFile(const char* aPath, FILE_RW_TYPE aType, bool aAppend, bool aBinary) override;
    int ReadFrom(unsigned char* aBuffer, int aLength) override;
    int WriteTo(const unsigned char* aData, int aLength) override;
    long long SeekPos(long long aOffset, SEEK_FROM aFrom) override;
    int CloseFile() override;
    long long GetFileSize() override;

    FILE* m_fp;
};

#endif  // SYSTEM_WRAPPERS_ZEM_FILE_H_
