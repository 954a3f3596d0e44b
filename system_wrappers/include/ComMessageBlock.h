// Byte buffers. ComMessageBlock is a view (begin, end, read, write) over a
// reference-counted storage block shared by every copy, so a producer can fill
// one block and hand copies to consumers that each read at their own pace.
// ComBufferBlockWrapper is a single cursor over a buffer the caller owns.
//
// Every transfer moves as much as fits and returns how much that was; none
// fails for lack of room or data other than by returning less (or 0).
#ifndef SYSTEM_WRAPPERS_COM_MESSAGE_BLOCK_H_
#define SYSTEM_WRAPPERS_COM_MESSAGE_BLOCK_H_

#include "ComRefCount.h"
#include "sw_export.h"

class SW_EXPORT ComMessageBlock {
public:
    // The shared storage: the object and its bytes are one malloc, returned
    // with one free by the last reference. Copies may be released on any thread.
    class SW_EXPORT DataBlock : public CRefCountBase<CReferOperatMulti> {
    public:
        // Null when malloc fails. The bytes are copied from aData when it is not null.
        static DataBlock* create_block(const unsigned char* aData, unsigned long aLength);

        DataBlock(unsigned char* aContent, unsigned long aCapacity)
            : m_pContent(aContent), m_capacity(aCapacity) {}
        ~DataBlock() override = default;

        unsigned char* GetConPtr() const { return m_pContent; }
        void DestroyThis() override;

        unsigned char* m_pContent;
        unsigned long m_capacity;
    };

    // Empty when aData is null or aLength is 0; otherwise a private copy of the
    // bytes, all of them readable.
    ComMessageBlock(const unsigned char* aData, unsigned long aLength);
    // Empty when aCapacity is 0; otherwise uninitialised storage, all writable.
    explicit ComMessageBlock(unsigned long aCapacity);
    // Shares aOther's bytes and copies its positions.
    ComMessageBlock(const ComMessageBlock& aOther);
    ComMessageBlock& operator=(const ComMessageBlock& aOther);
    ~ComMessageBlock() = default;

    // Attaches fresh storage of aLength bytes (holding aData when it is not
    // null, all readable). Leaves the object as it was when allocation fails.
    void AssignValue(const unsigned char* aData, unsigned long aLength);
    void CopyFrom(const ComMessageBlock& aOther);

    // A null aDest still counts and, with aAdvance, skips the bytes.
    unsigned long Read(unsigned char* aDest, unsigned long aLength, bool aAdvance);
    // Reads aOffset bytes past the read position; never advances.
    unsigned long ReadByOffset(unsigned char* aDest, unsigned long aLength, unsigned long aOffset);
    // A null aSrc still counts and, with aAdvance, leaves the bytes as they were.
    unsigned long Write(const unsigned char* aSrc, unsigned long aLength, bool aAdvance);
    // Writes aOffset bytes past the write position; never advances.
    unsigned long WriteByOffset(const unsigned char* aSrc, unsigned long aLength,
                                unsigned long aOffset);

    unsigned long GetReadableLength() const;
    unsigned long GetWritableCapacity() const;
    unsigned long FillByte(unsigned char aValue, unsigned long aCount, bool aAdvance);

    unsigned char* m_pBegin;
    unsigned char* m_pEnd;
    unsigned char* m_pRead;
    unsigned char* m_pWrite;
    CRefCountAutoPtr<DataBlock> m_dataBlock;

private:
    unsigned long ReadImpl(unsigned char* aDest, unsigned long aLength, unsigned long aOffset,
                           bool aAdvance);
    unsigned long WriteImpl(const unsigned char* aSrc, unsigned long aLength,
                            unsigned long aOffset, bool aAdvance);
};

// Non-owning: one cursor, used for both reading and writing, over the
// caller's buffer. Copies point at the same buffer. No synchronisation.
class SW_EXPORT ComBufferBlockWrapper {
public:
    ComBufferBlockWrapper(unsigned char* aBuffer, unsigned long aSize, unsigned long aPos)
        : m_pBuffer(aBuffer), m_size(aSize), m_pos(aPos) {}
    ComBufferBlockWrapper(const ComBufferBlockWrapper& aOther) = default;
    ComBufferBlockWrapper& operator=(const ComBufferBlockWrapper& aOther) = default;

    // Both are the bytes from the cursor to the end of the buffer.
    unsigned long GetWritableCapacity() const { return m_size > m_pos ? m_size - m_pos : 0; }
    unsigned long GetReadableLength() const { return GetWritableCapacity(); }

    unsigned long Read(unsigned char* aDest, unsigned long aLength, bool aAdvance);
    unsigned long Write(const unsigned char* aSrc, unsigned long aLength, bool aAdvance);
    // Makes no null checks: the caller's buffer must be there.
    unsigned long FillByte(unsigned char aValue, unsigned long aCount, bool aAdvance);

    unsigned char* m_pBuffer;
    unsigned long m_size;
    unsigned long m_pos;
};

#endif  // SYSTEM_WRAPPERS_COM_MESSAGE_BLOCK_H_
