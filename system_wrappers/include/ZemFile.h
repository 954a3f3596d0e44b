/// @file
/// File access behind one small interface, over POSIX descriptors
/// (CZemFileUnix, what Create() returns) or C streams (CZemFileStd). Both return
/// 0 or a count on success and -1 on failure, but they differ on purpose in a
/// few details, noted below; each class is the reference for its own callers.
/// On failure errno is left as the failing system call set it. Objects are not
/// locked: one thread uses an object at a time.
#ifndef SYSTEM_WRAPPERS_ZEM_FILE_H_
#define SYSTEM_WRAPPERS_ZEM_FILE_H_

#include <stdio.h>

#include "sw_export.h"

/// How OpenFile opens a file. A fixed underlying type lets callers pass any int
/// value; out-of-range ones make OpenFile return -1 without touching the file
/// system.
enum FILE_RW_TYPE : int {
    FILE_RW_READ = 0,       ///< Read only.
    FILE_RW_WRITE = 1,      ///< Write only, created if missing.
    FILE_RW_READWRITE = 2,  ///< Read and write, created if missing.
};

/// The origin of SeekPos; other values make it return -1.
enum SEEK_FROM : int {
    SEEK_FROM_BEGIN = 0,    ///< From the start of the file (SEEK_SET).
    SEEK_FROM_CURRENT = 1,  ///< From the current position (SEEK_CUR).
    SEEK_FROM_END = 2,      ///< From the end of the file (SEEK_END).
};

/// The file interface. Objects are destroyed through their concrete type, and
/// never close themselves: owners call CloseFile before deleting.
class SW_EXPORT CZemFileWrapper {
public:
    /// A new, closed CZemFileUnix owned by the caller (delete it as a
    /// CZemFileUnix), or null when memory runs out.
    static CZemFileWrapper* Create();

    /// Opens aPath as aType; the two flags mean different things in the two
    /// classes. 0, or -1.
    virtual int OpenFile(const char* aPath, FILE_RW_TYPE aType, bool aFlag1, bool aFlag2) = 0;
    /// Reads up to aLength bytes: the count (0 at end of file), or -1.
    virtual int ReadFrom(unsigned char* aBuffer, int aLength) = 0;
    /// Writes aLength bytes; what the result counts differs by class. -1 on failure.
    virtual int WriteTo(const unsigned char* aData, int aLength) = 0;
    /// Moves the position: the new position, or -1.
    virtual long long SeekPos(long long aOffset, SEEK_FROM aFrom) = 0;
    /// Closes the file. 0, or -1 when none is open.
    virtual int CloseFile() = 0;
    /// The file's size in bytes, or -1; the position is kept.
    virtual long long GetFileSize() = 0;

protected:
    /// Not virtual, so deleting through the interface does not compile.
    ~CZemFileWrapper() = default;
};

/// Over a descriptor. OpenFile(path, type, truncate, unused): for write and
/// read-write, true empties the file and false keeps it, writing from the start.
/// Open and read failures are traced at error level. SeekPos narrows the
/// position to 32 bits.
class SW_EXPORT CZemFileUnix final : public CZemFileWrapper {
public:
    /// A closed object.
    CZemFileUnix() : m_fd(-1), m_rwType(FILE_RW_READ) {}

    /// Opens aPath (mode 0666 when created); aTruncate empties a file opened
    /// for writing; aUnused is ignored. 0, or -1: an unknown aType fails
    /// silently; a failed open traces "[FILE IO can not open file error:]" with
    /// errno, " FILE name:" with the path and ", this=", and prints perror
    /// "open:" on standard error. A second open without a close leaks the
    /// first descriptor.
    int OpenFile(const char* aPath, FILE_RW_TYPE aType, bool aTruncate, bool aUnused) override;
    /// The bytes read, 0 at end of file, or -1: on a closed or write-only file,
    /// traced "[FILE IO READ  error:]" (two blanks) with errno and ", this=";
    /// when the read fails (or aLength is negative), traced
    /// "[FILE IO can not read file error:]" with errno, " read len:-1" and ", this=".
    int ReadFrom(unsigned char* aBuffer, int aLength) override;
    /// The bytes written (possibly fewer), or -1: on a closed or read-only
    /// file, for a negative aLength, or when the write fails. Nothing is traced.
    int WriteTo(const unsigned char* aData, int aLength) override;
    /// The new position, or -1 (closed file, unknown aFrom, failed seek).
    /// Positions of 2 GiB and more come back wrapped to a signed 32-bit value.
    long long SeekPos(long long aOffset, SEEK_FROM aFrom) override;
    /// 0 once the descriptor is released, even when close fails (perror
    /// "close:" on standard error); -1 when none is open.
    int CloseFile() override;
    /// The size from fstat, or -1 (closed file, failed fstat).
    long long GetFileSize() override;

    int m_fd;               ///< The descriptor, -1 when closed.
    FILE_RW_TYPE m_rwType;  ///< The type of the last successful OpenFile.
};

/// Over a C stream. OpenFile(path, type, append, binary): for write and
/// read-write, true appends and false empties the file (the reverse of
/// CZemFileUnix). WriteTo answers whole blocks (1 or 0), not bytes. Nothing is
/// traced.
class SW_EXPORT CZemFileStd final : public CZemFileWrapper {
public:
    /// A closed object.
    CZemFileStd() : m_fp(nullptr) {}

    /// Opens aPath with fopen: "r" for reading (aAppend ignored); "a" or "w"
    /// for writing; "a+" or "w+" for both; aBinary adds "b". 0, or -1 for an
    /// unknown aType, a null aPath or a failed fopen (the stream held, if any,
    /// stays). A successful reopen closes the stream held before.
    int OpenFile(const char* aPath, FILE_RW_TYPE aType, bool aAppend, bool aBinary) override;
    /// The bytes read (fewer at end of file or on an error), or -1 on a closed
    /// file, for a negative aLength, or a null aBuffer with a positive aLength.
    int ReadFrom(unsigned char* aBuffer, int aLength) override;
    /// 1 when all aLength bytes were written as one block, 0 otherwise (also
    /// for aLength 0); -1 on a closed file, for a negative aLength, or null aData
    /// with a positive aLength.
    int WriteTo(const unsigned char* aData, int aLength) override;
    /// The new position, full 64 bits, or -1 (closed file, unknown aFrom, failed seek).
    long long SeekPos(long long aOffset, SEEK_FROM aFrom) override;
    /// 0, or -1 when none is open or fclose fails (perror "fclose:" on standard
    /// error; the stream is released either way).
    int CloseFile() override;
    /// The size, found by seeking to the end and back. -1 on a closed file or
    /// when the first seek fails (perror "seek fail in getsize:"); a failed seek
    /// back prints perror "seek fail in secord time" and still returns the size.
    long long GetFileSize() override;

    FILE* m_fp;  ///< The stream, null when closed.
};

#endif  // SYSTEM_WRAPPERS_ZEM_FILE_H_
