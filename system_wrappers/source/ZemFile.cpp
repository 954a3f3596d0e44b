#include "ZemFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sw_trace.h"

using sw::Addr;

namespace {

bool ToWhence(SEEK_FROM aFrom, int& aWhence) {
    switch (aFrom) {
        case SEEK_FROM_BEGIN: aWhence = SEEK_SET; return true;
        case SEEK_FROM_CURRENT: aWhence = SEEK_CUR; return true;
        case SEEK_FROM_END: aWhence = SEEK_END; return true;
    }
    return false;
}

// Restores errno after trace lines and perror, so callers see what the system
// call set.
class ErrnoKeeper {
public:
    ErrnoKeeper() : m_errno(errno) {}
    ~ErrnoKeeper() { errno = m_errno; }
    int Value() const { return m_errno; }

private:
    int m_errno;
};

}  // namespace

CZemFileWrapper* CZemFileWrapper::Create() {
    return new (std::nothrow) CZemFileUnix();
}

int CZemFileUnix::OpenFile(const char* aPath, FILE_RW_TYPE aType, bool aTruncate, bool) {
    int flags = 0;
    switch (aType) {
        case FILE_RW_READ: flags = O_RDONLY; break;
        case FILE_RW_WRITE: flags = O_WRONLY | O_CREAT; break;
        case FILE_RW_READWRITE: flags = O_RDWR | O_CREAT; break;
        default: return -1;
    }
    if (aType != FILE_RW_READ && aTruncate) flags |= O_TRUNC;

    // A null path gets the same failure as any path open() refuses.
    const int fd = aPath ? open(aPath, flags, 0666) : (errno = EFAULT, -1);
    if (fd < 0) {
        ErrnoKeeper saved;
        SW_TRACE_ERROR("[FILE IO can not open file error:]" << saved.Value() << " FILE name:"
                                                            << aPath << ", this=" << Addr(this));
        errno = saved.Value();  // perror reports the open's own error
        perror("open:");
        return -1;
    }
    m_fd = fd;
    m_rwType = aType;
    return 0;
}

int CZemFileUnix::ReadFrom(unsigned char* aBuffer, int aLength) {
    if (m_fd < 0 || m_rwType == FILE_RW_WRITE) {
        ErrnoKeeper saved;
        SW_TRACE_ERROR("[FILE IO READ  error:]" << saved.Value() << ", this=" << Addr(this));
        return -1;
    }
    // A negative length would become a huge count and overrun the buffer.
    const ssize_t result = aLength < 0 ? (errno = EINVAL, -1)
                                       : read(m_fd, aBuffer, static_cast<size_t>(aLength));
    if (result < 0) {
        ErrnoKeeper saved;
        SW_TRACE_ERROR("[FILE IO can not read file error:]" << saved.Value() << " read len:"
                                                            << static_cast<int>(result)
                                                            << ", this=" << Addr(this));
    }
    return static_cast<int>(result);
}

int CZemFileUnix::WriteTo(const unsigned char* aData, int aLength) {
    if (m_fd < 0 || m_rwType == FILE_RW_READ) return -1;
    if (aLength < 0) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(write(m_fd, aData, static_cast<size_t>(aLength)));
}

long long CZemFileUnix::SeekPos(long long aOffset, SEEK_FROM aFrom) {
    int whence = 0;
    if (!ToWhence(aFrom, whence)) return -1;
    const off_t position = lseek(m_fd, static_cast<off_t>(aOffset), whence);
    // Narrowed on purpose: callers of this class expect a 32-bit position.
    return static_cast<int32_t>(position);
}

int CZemFileUnix::CloseFile() {
    if (m_fd < 0) return -1;
    if (close(m_fd) != 0) {
        ErrnoKeeper saved;
        perror("close:");
    }
    m_fd = -1;
    return 0;
}

long long CZemFileUnix::GetFileSize() {
    if (m_fd < 0) return -1;
    struct stat info;
    if (fstat(m_fd, &info) != 0) return -1;
    return static_cast<long long>(info.st_size);
}

int CZemFileStd::OpenFile(const char* aPath, FILE_RW_TYPE aType, bool aAppend, bool aBinary) {
    const char* mode = nullptr;
    switch (aType) {
        case FILE_RW_READ: mode = aBinary ? "rb" : "r"; break;
        case FILE_RW_WRITE: mode = aAppend ? (aBinary ? "ab" : "a") : (aBinary ? "wb" : "w"); break;
        case FILE_RW_READWRITE:
            mode = aAppend ? (aBinary ? "a+b" : "a+") : (aBinary ? "w+b" : "w+");
            break;
        default: return -1;
    }
    if (!aPath) {
        errno = EFAULT;
        return -1;
    }
    FILE* stream = fopen(aPath, mode);
    if (!stream) return -1;
    // Reopening replaces the stream; the old one is closed rather than leaked.
    if (m_fp) fclose(m_fp);
    m_fp = stream;
    return 0;
}

// A null buffer or a negative length is refused instead of crashing in stdio.
int CZemFileStd::ReadFrom(unsigned char* aBuffer, int aLength) {
    if (!m_fp || aLength < 0 || (!aBuffer && aLength > 0)) return -1;
    return static_cast<int>(fread(aBuffer, 1, static_cast<size_t>(aLength), m_fp));
}

// One item of aLength bytes: the answer is 1 when all of it went, 0 otherwise.
int CZemFileStd::WriteTo(const unsigned char* aData, int aLength) {
    if (!m_fp || aLength < 0 || (!aData && aLength > 0)) return -1;
    return static_cast<int>(fwrite(aData, static_cast<size_t>(aLength), 1, m_fp));
}

long long CZemFileStd::SeekPos(long long aOffset, SEEK_FROM aFrom) {
    int whence = 0;
    if (!m_fp || !ToWhence(aFrom, whence)) return -1;
    if (fseeko(m_fp, static_cast<off_t>(aOffset), whence) != 0) return -1;
    return static_cast<long long>(ftello(m_fp));
}

int CZemFileStd::CloseFile() {
    if (!m_fp) return -1;
    const int result = fclose(m_fp);
    m_fp = nullptr;
    if (result != 0) {
        perror("fclose:");
        return -1;
    }
    return 0;
}

long long CZemFileStd::GetFileSize() {
    if (!m_fp) return -1;
    const off_t position = ftello(m_fp);
    if (fseeko(m_fp, 0, SEEK_END) != 0) {
        perror("seek fail in getsize:");
        return -1;
    }
    const long long size = static_cast<long long>(ftello(m_fp));
    if (fseeko(m_fp, position, SEEK_SET) != 0) perror("seek fail in secord time");
    return size;
}
