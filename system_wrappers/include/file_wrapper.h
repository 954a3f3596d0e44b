// File access of the portable primitives over C streams: open by name or
// adopt a stream, read (optionally looping), write under an optional size
// limit. One object may be used from several threads: every call takes its
// lock.
#ifndef SYSTEM_WRAPPERS_FILE_WRAPPER_H_
#define SYSTEM_WRAPPERS_FILE_WRAPPER_H_

#include <stddef.h>
#include <stdio.h>

#include "sw_export.h"

namespace webrtc {

// Results are 0 on success and -1 on failure unless stated. Every call that
// needs a file answers -1 (Write: false) when none is open.
class SW_EXPORT FileWrapper {
public:
    // Names must be shorter than this, in bytes.
    static constexpr size_t kMaxFileNameSize = 1024;

    // A new object with no file open; null when memory runs out. The caller
    // deletes it, which closes a managed file still open.
    static FileWrapper* Create();

    virtual ~FileWrapper() = default;

    // Copies the name and its terminator into aBuffer; -1 for a null buffer,
    // without an open file, or when they do not fit. A stream adopted by
    // OpenFromFileHandle has the empty name.
    virtual int FileName(char* aBuffer, size_t aSize) const = 0;
    virtual bool Open() const = 0;

    // Read-only opens an existing file; otherwise the file is created or
    // emptied and may only be written. -1 for a null or too long name, a file
    // already open on this object, or an open failure.
    virtual int OpenFile(const char* aFileNameUtf8, bool aReadOnly, bool aLoop = false,
                         bool aText = false) = 0;
    // Adopts an open stream; with aManageFile, CloseFile and the destructor
    // close it, otherwise it stays the caller's. -1 for a null handle or a
    // file already open on this object.
    virtual int OpenFromFileHandle(FILE* aHandle, bool aManageFile, bool aReadOnly,
                                   bool aLoop = false) = 0;
    // Forgets the file, closing the stream when the object manages it.
    virtual int CloseFile() = 0;

    // 0 removes the limit. It outlives CloseFile and counts the bytes written
    // since the last open.
    virtual int SetMaxFileSize(size_t aBytes) = 0;
    virtual int Flush() = 0;

    // The bytes read (0 at the end), or -1 on error, for a null buffer or a
    // negative length. When looping, a read that reaches the end rewinds, so
    // the next read starts over.
    virtual int Read(void* aBuf, int aLength) = 0;
    // False for a read-only file, a null buffer, a negative length, or bytes
    // that would pass the size limit (then nothing is written).
    virtual bool Write(const void* aBuf, int aLength) = 0;
    // Formats as printf does, then writes the result under the same rules as
    // Write: the characters written, or -1.
    virtual int WriteText(const char* aFormat, ...) __attribute__((format(printf, 2, 3))) = 0;
    // Back to the start; the written byte count is not reset.
    virtual int Rewind() = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_FILE_WRAPPER_H_
