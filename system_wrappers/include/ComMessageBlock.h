/// @file
/// Byte buffers: ComMessageBlock, a view over reference-counted storage shared
/// by its copies, and ComBufferBlockWrapper, a single cursor over a buffer the
/// caller owns. Every transfer moves as much as fits and returns how much that
/// was; none fails for lack of room or data other than by returning less (or
/// 0), and nothing here traces or throws.
#ifndef SYSTEM_WRAPPERS_COM_MESSAGE_BLOCK_H_
#define SYSTEM_WRAPPERS_COM_MESSAGE_BLOCK_H_

#include "ComRefCount.h"
#include "sw_export.h"

/// A byte buffer: four positions (begin, end, read, write) over a
/// reference-counted DataBlock that every copy shares. Copying is cheap and
/// shares the bytes, but each copy keeps its own positions, so a producer can
/// fill one block and hand copies to consumers that each read at their own
/// pace. A write through one copy is visible to the others (there is no
/// copy-on-write); to get a private copy, construct a new block from the
/// readable bytes.
///
/// A block is either empty (no storage, all positions null; every transfer
/// then returns 0) or attached, with begin <= read <= write <= end. Positions
/// only move forward. Threads: copies of one block may be made and destroyed
/// on different threads at once (the storage's count is locked), but one
/// ComMessageBlock object is used by one thread at a time, and writers of the
/// shared bytes must be kept apart from their readers by the caller. The last
/// copy to go frees the storage, on whichever thread that is.
class SW_EXPORT ComMessageBlock {
public:
    /// The shared storage: the object and its bytes are one malloc, given back
    /// with one free by the last reference (DestroyThis). Its counter is
    /// locked, so references may be taken and released on any thread. Made
    /// only through create_block.
    class SW_EXPORT DataBlock : public CRefCountBase<CReferOperatMulti> {
    public:
        /// A new block with aLength bytes of storage, holding a copy of aData
        /// when aData is not null (uninitialised otherwise), with a count of
        /// 0: the caller takes the first reference (a CRefCountAutoPtr) and
        /// the last release frees it. Null, without a trace, when malloc
        /// fails or aLength is too large to allocate.
        static DataBlock* create_block(const unsigned char* aData, unsigned long aLength);

        /// Records storage that create_block placed right behind the object.
        /// Not for callers: a block not made by create_block must never reach
        /// DestroyThis, which frees the object with free.
        DataBlock(unsigned char* aContent, unsigned long aCapacity)
            : m_pContent(aContent), m_capacity(aCapacity) {}
        /// Nothing to do: the bytes go with the object's own allocation.
        ~DataBlock() override = default;

        /// The first byte of the storage.
        unsigned char* GetConPtr() const { return m_pContent; }
        /// Runs the destructor and frees the single allocation; called by the
        /// release that brings the count to 0, never by callers.
        void DestroyThis() override;

        /// The first byte of the storage, just behind the object.
        unsigned char* m_pContent;
        /// The number of storage bytes.
        unsigned long m_capacity;
    };

    /// Empty when aData is null or aLength is 0; otherwise fresh storage with
    /// a private copy of the aLength bytes, all of them readable and nothing
    /// writable. Empty, too, when the allocation fails (check
    /// GetReadableLength() where it matters).
    ComMessageBlock(const unsigned char* aData, unsigned long aLength);
    /// Empty when aCapacity is 0 or the allocation fails; otherwise
    /// uninitialised storage of aCapacity bytes, nothing readable, all
    /// writable.
    explicit ComMessageBlock(unsigned long aCapacity);
    /// Shares aOther's storage (one more reference) and copies its positions;
    /// the bytes are not copied.
    ComMessageBlock(const ComMessageBlock& aOther);
    /// As CopyFrom(aOther); self-assignment does nothing. Returns this block.
    ComMessageBlock& operator=(const ComMessageBlock& aOther);
    /// Drops this copy's reference; the last copy frees the storage.
    ~ComMessageBlock() = default;

    /// Attaches fresh storage of aLength bytes, dropping the old reference.
    /// With aData not null the bytes are copied and all readable; with aData
    /// null they are uninitialised and all writable. A zero aLength attaches
    /// zero-byte storage. When the allocation fails the object is left
    /// exactly as it was (nothing traced).
    void AssignValue(const unsigned char* aData, unsigned long aLength);
    /// Shares aOther's storage (one more reference, the old one dropped) and
    /// copies its four positions; the bytes are not copied.
    void CopyFrom(const ComMessageBlock& aOther);

    /// Copies up to aLength readable bytes into aDest and returns how many:
    /// the smaller of aLength and GetReadableLength(), 0 on an empty block.
    /// With aAdvance the read position moves past them. A null aDest copies
    /// nothing but still counts, so with aAdvance it skips the bytes.
    unsigned long Read(unsigned char* aDest, unsigned long aLength, bool aAdvance);
    /// As Read, starting aOffset bytes past the read position, and never
    /// advancing: returns the smaller of aLength and the readable bytes left
    /// after aOffset, and 0 when aOffset is not below GetReadableLength().
    unsigned long ReadByOffset(unsigned char* aDest, unsigned long aLength, unsigned long aOffset);
    /// Copies up to aLength bytes from aSrc to the write position and returns
    /// how many: the smaller of aLength and GetWritableCapacity(), 0 on an
    /// empty block. With aAdvance the write position moves past them, making
    /// them readable. A null aSrc copies nothing but still counts, so with
    /// aAdvance it leaves the bytes as they were.
    unsigned long Write(const unsigned char* aSrc, unsigned long aLength, bool aAdvance);
    /// As Write, starting aOffset bytes past the write position, and never
    /// advancing: returns the smaller of aLength and the writable bytes left
    /// after aOffset, and 0 when aOffset is not below GetWritableCapacity().
    unsigned long WriteByOffset(const unsigned char* aSrc, unsigned long aLength,
                                unsigned long aOffset);

    /// The bytes between the read and the write position; 0 when empty.
    unsigned long GetReadableLength() const;
    /// The bytes between the write position and the end; 0 when empty.
    unsigned long GetWritableCapacity() const;
    /// Stores aValue into the smaller of aCount and GetWritableCapacity()
    /// bytes at the write position and returns how many; with aAdvance the
    /// write position moves past them. 0 on an empty block.
    unsigned long FillByte(unsigned char aValue, unsigned long aCount, bool aAdvance);

    /// Start of the storage; null when empty.
    unsigned char* m_pBegin;
    /// One past the last storage byte; null when empty.
    unsigned char* m_pEnd;
    /// The next byte to read; null when empty.
    unsigned char* m_pRead;
    /// The next byte to write; null when empty.
    unsigned char* m_pWrite;
    /// The shared storage, holding this copy's reference; null when empty.
    CRefCountAutoPtr<DataBlock> m_dataBlock;

private:
    unsigned long ReadImpl(unsigned char* aDest, unsigned long aLength, unsigned long aOffset,
                           bool aAdvance);
    unsigned long WriteImpl(const unsigned char* aSrc, unsigned long aLength,
                            unsigned long aOffset, bool aAdvance);
};

/// A non-owning cursor over the caller's buffer: one position, used for both
/// reading and writing. The buffer is never freed here and must outlive the
/// wrapper; copies point at the same buffer. No synchronisation: one thread
/// at a time.
class SW_EXPORT ComBufferBlockWrapper {
public:
    /// Wraps aSize bytes at aBuffer with the cursor at aPos (a position at or
    /// past aSize leaves nothing to read or write).
    ComBufferBlockWrapper(unsigned char* aBuffer, unsigned long aSize, unsigned long aPos)
        : m_pBuffer(aBuffer), m_size(aSize), m_pos(aPos) {}
    /// Copies the buffer pointer, size and cursor.
    ComBufferBlockWrapper(const ComBufferBlockWrapper& aOther) = default;
    /// Copies the buffer pointer, size and cursor.
    ComBufferBlockWrapper& operator=(const ComBufferBlockWrapper& aOther) = default;

    /// The bytes from the cursor to the end of the buffer; 0 once the cursor
    /// is at or past the end.
    unsigned long GetWritableCapacity() const { return m_size > m_pos ? m_size - m_pos : 0; }
    /// The same value as GetWritableCapacity(): one cursor serves both ways.
    unsigned long GetReadableLength() const { return GetWritableCapacity(); }

    /// Copies up to aLength bytes at the cursor into aDest and returns how
    /// many (the smaller of aLength and the bytes left); with aAdvance the
    /// cursor moves past them. 0, cursor unmoved, when aDest or the buffer is
    /// null or aLength or the size is 0.
    unsigned long Read(unsigned char* aDest, unsigned long aLength, bool aAdvance);
    /// Copies up to aLength bytes from aSrc to the cursor and returns how many
    /// (the smaller of aLength and the bytes left); with aAdvance the cursor
    /// moves past them. 0, cursor unmoved, when aSrc or the buffer is null or
    /// aLength or the size is 0.
    unsigned long Write(const unsigned char* aSrc, unsigned long aLength, bool aAdvance);
    /// Stores aValue into up to aCount bytes at the cursor and returns how
    /// many (the smaller of aCount and the bytes left); with aAdvance the
    /// cursor moves past them. 0 when the buffer is null.
    unsigned long FillByte(unsigned char aValue, unsigned long aCount, bool aAdvance);

    /// The caller's buffer; not owned.
    unsigned char* m_pBuffer;
    /// The buffer's size in bytes.
    unsigned long m_size;
    /// The cursor, in bytes from the start of the buffer.
    unsigned long m_pos;
};

#endif  // SYSTEM_WRAPPERS_COM_MESSAGE_BLOCK_H_
