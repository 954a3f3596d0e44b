/// @file
/// File access of the portable primitives over C streams: open by name or
/// adopt a stream, read (optionally looping), write under an optional size
/// limit.
#ifndef SYSTEM_WRAPPERS_FILE_WRAPPER_H_
#define SYSTEM_WRAPPERS_FILE_WRAPPER_H_

#include <stddef.h>
#include <stdio.h>

#include "sw_export.h"

namespace webrtc {

/// A file opened by name or adopted as a stream. One object may be used from
/// several threads: every call takes its lock. Results are 0 on success and
/// -1 on failure unless stated. Every call that needs a file answers -1
/// (Write: false) when none is open. Nothing is traced.
class SW_EXPORT FileWrapper {
public:
    /// Names must be shorter than this, in bytes.
    static constexpr size_t kMaxFileNameSize = 1024;

    /// A new object with no file open; null when memory runs out. The caller
    /// owns it and frees it with delete.
    static FileWrapper* Create();

    /// Closes a managed file still open; an unmanaged stream stays open.
    virtual ~FileWrapper() = default;

    /// Copies the name and its terminator into aBuffer (aSize bytes); -1 for
    /// a null buffer, without an open file, or when they do not fit. A stream
    /// adopted by OpenFromFileHandle has the empty name.
    virtual int FileName(char* aBuffer, size_t aSize) const = 0;
    /// True while a file is open on this object.
    virtual bool Open() const = 0;

    /// Opens aFileNameUtf8. Read-only opens an existing file; otherwise the
    /// file is created or emptied and may only be written. With aLoop, reads
    /// start over at the end (see Read); aText changes nothing on POSIX. The
    /// object manages the stream and resets the written byte count. -1 for a
    /// null or too long name, a file already open on this object, or an open
    /// failure.
    virtual int OpenFile(const char* aFileNameUtf8, bool aReadOnly, bool aLoop = false,
                         bool aText = false) = 0;
    /// Adopts the open stream aHandle; with aManageFile, CloseFile and the
    /// destructor close it, otherwise it stays the caller's and must stay open
    /// until CloseFile. aReadOnly refuses writes. -1 for a null handle or a
    /// file already open on this object.
    virtual int OpenFromFileHandle(FILE* aHandle, bool aManageFile, bool aReadOnly,
                                   bool aLoop = false) = 0;
    /// Forgets the file, closing the stream when the object manages it. -1
    /// without an open file or when closing fails (the file is forgotten
    /// anyway).
    virtual int CloseFile() = 0;

    /// Limits the bytes written since the last open to aBytes; 0 removes the
    /// limit. The limit outlives CloseFile. Returns 0, with or without a file.
    virtual int SetMaxFileSize(size_t aBytes) = 0;
    /// Flushes the stream; -1 without a file or when flushing fails.
    virtual int Flush() = 0;

    /// Reads up to aLength bytes into aBuf: the bytes read (0 at the end), or
    /// -1 on error, for a null buffer or a negative length. When looping, a
    /// read that reaches the end rewinds, so the next read starts over.
    virtual int Read(void* aBuf, int aLength) = 0;
    /// Writes aLength bytes of aBuf; true when all were written. False for a
    /// read-only file, a null buffer, a negative length, a write error, or
    /// bytes that would pass the size limit (then nothing is written).
    virtual bool Write(const void* aBuf, int aLength) = 0;
    /// Formats as printf does, then writes the result under the same rules as
    /// Write: the characters written, or -1 (also for a null format).
    virtual int WriteText(const char* aFormat, ...) __attribute__((format(printf, 2, 3))) = 0;
    /// Back to the start; the written byte count is not reset. -1 without a
    /// file.
    virtual int Rewind() = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_FILE_WRAPPER_H_
