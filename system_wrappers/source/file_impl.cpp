// FileWrapper over C streams, every call under the object's own mutex.
#include "file_wrapper.h"

#include <stdarg.h>
#include <string.h>

#include <mutex>
#include <new>

namespace webrtc {

namespace {

class FileWrapperImpl final : public FileWrapper {
public:
    FileWrapperImpl() = default;
    ~FileWrapperImpl() override;
    FileWrapperImpl(const FileWrapperImpl&) = delete;
    FileWrapperImpl& operator=(const FileWrapperImpl&) = delete;

    int FileName(char* aBuffer, size_t aSize) const override;
    bool Open() const override;
    int OpenFile(const char* aFileNameUtf8, bool aReadOnly, bool aLoop, bool aText) override;
    int OpenFromFileHandle(FILE* aHandle, bool aManageFile, bool aReadOnly, bool aLoop) override;
    int CloseFile() override;
    int SetMaxFileSize(size_t aBytes) override;
    int Flush() override;
    int Read(void* aBuf, int aLength) override;
    bool Write(const void* aBuf, int aLength) override;
    int WriteText(const char* aFormat, ...) override;
    int Rewind() override;

private:
    void Adopt(FILE* aFile, bool aManageFile, bool aReadOnly, bool aLoop);
    int CloseLocked();
    // Writes all aLength bytes or, when the limit forbids it, none.
    bool WriteLocked(const void* aBuf, size_t aLength);

    mutable std::mutex m_mutex;
    FILE* m_file = nullptr;
    bool m_managed = false;
    bool m_readOnly = false;
    bool m_looping = false;
    size_t m_maxSize = 0;
    size_t m_written = 0;
    char m_name[kMaxFileNameSize] = {};
};

FileWrapperImpl::~FileWrapperImpl() {
    CloseLocked();
}

int FileWrapperImpl::FileName(char* aBuffer, size_t aSize) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!aBuffer || !m_file) return -1;
    const size_t length = strlen(m_name);
    if (length >= aSize) return -1;
    memcpy(aBuffer, m_name, length + 1);
    return 0;
}

bool FileWrapperImpl::Open() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_file != nullptr;
}

int FileWrapperImpl::OpenFile(const char* aFileNameUtf8, bool aReadOnly, bool aLoop, bool aText) {
    if (!aFileNameUtf8) return -1;
    const size_t length = strnlen(aFileNameUtf8, kMaxFileNameSize);
    if (length >= kMaxFileNameSize) return -1;
    // Text and binary streams are the same on POSIX; "e" keeps the descriptor
    // out of processes the host executes.
    const char* mode = aReadOnly ? (aText ? "re" : "rbe") : (aText ? "we" : "wbe");

    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file) return -1;
    FILE* file = fopen(aFileNameUtf8, mode);
    if (!file) return -1;
    Adopt(file, true, aReadOnly, aLoop);
    memcpy(m_name, aFileNameUtf8, length + 1);
    return 0;
}

int FileWrapperImpl::OpenFromFileHandle(FILE* aHandle, bool aManageFile, bool aReadOnly,
                                        bool aLoop) {
    if (!aHandle) return -1;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file) return -1;
    Adopt(aHandle, aManageFile, aReadOnly, aLoop);
    m_name[0] = '\0';
    return 0;
}

int FileWrapperImpl::CloseFile() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return CloseLocked();
}

int FileWrapperImpl::SetMaxFileSize(size_t aBytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_maxSize = aBytes;
    return 0;
}

int FileWrapperImpl::Flush() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_file) return -1;
    return fflush(m_file) == 0 ? 0 : -1;
}

int FileWrapperImpl::Read(void* aBuf, int aLength) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_file || !aBuf || aLength < 0) return -1;
    const size_t wanted = static_cast<size_t>(aLength);
    // A stream that is also written may not turn between writing and reading
    // without a flush or a seek: glibc would drop the bytes still buffered.
    if (!m_readOnly) fflush(m_file);
    const size_t got = fread(aBuf, 1, wanted, m_file);
    if (!m_readOnly) fseek(m_file, 0, SEEK_CUR);  // so that a write may follow
    if (got < wanted && ferror(m_file)) {
        clearerr(m_file);
        return -1;
    }
    if (m_looping) {
        // A read that ends exactly at the end has not seen it yet: peek, so
        // that the next read starts over rather than returning nothing.
        bool atEnd = got < wanted;
        if (!atEnd) {
            const int next = getc(m_file);
            atEnd = next == EOF;
            if (!atEnd) ungetc(next, m_file);
        }
        if (atEnd) rewind(m_file);
    }
    return static_cast<int>(got);
}

bool FileWrapperImpl::Write(const void* aBuf, int aLength) {
    if (!aBuf || aLength < 0) return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    return WriteLocked(aBuf, static_cast<size_t>(aLength));
}

int FileWrapperImpl::WriteText(const char* aFormat, ...) {
    if (!aFormat) return -1;
    // Formatted before the lock is taken: the limit is checked on the result.
    char small[1024];
    va_list args;
    va_start(args, aFormat);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(small, sizeof(small), aFormat, args);
    va_end(args);
    char* text = small;
    if (length >= static_cast<int>(sizeof(small))) {
        text = new (std::nothrow) char[static_cast<size_t>(length) + 1];
        if (text) vsnprintf(text, static_cast<size_t>(length) + 1, aFormat, again);
    }
    va_end(again);
    if (length < 0 || !text) return -1;

    bool written;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        written = WriteLocked(text, static_cast<size_t>(length));
    }
    if (text != small) delete[] text;
    return written ? length : -1;
}

int FileWrapperImpl::Rewind() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_file) return -1;
    rewind(m_file);
    return 0;
}

void FileWrapperImpl::Adopt(FILE* aFile, bool aManageFile, bool aReadOnly, bool aLoop) {
    m_file = aFile;
    m_managed = aManageFile;
    m_readOnly = aReadOnly;
    m_looping = aLoop;
    m_written = 0;
}

int FileWrapperImpl::CloseLocked() {
    if (!m_file) return -1;
    const int result = m_managed && fclose(m_file) != 0 ? -1 : 0;
    m_file = nullptr;
    m_name[0] = '\0';
    return result;
}

bool FileWrapperImpl::WriteLocked(const void* aBuf, size_t aLength) {
    if (!m_file || m_readOnly) return false;
    if (m_maxSize != 0 && (m_written > m_maxSize || aLength > m_maxSize - m_written)) {
        return false;
    }
    const size_t done = fwrite(aBuf, 1, aLength, m_file);
    m_written += done;
    return done == aLength;
}

}  // namespace

FileWrapper* FileWrapper::Create() {
    return new (std::nothrow) FileWrapperImpl();
}

}  // namespace webrtc
