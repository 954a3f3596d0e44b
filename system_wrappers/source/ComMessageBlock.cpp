#include "ComMessageBlock.h"

#include <stdlib.h>
#include <string.h>

#include <new>

namespace {

// How many of aLength bytes fit when aOffset bytes of aAvailable are skipped
// first. Written so that a huge length or offset cannot wrap the sum.
unsigned long Fitting(unsigned long aAvailable, unsigned long aLength, unsigned long aOffset) {
    if (aOffset >= aAvailable) return 0;
    const unsigned long rest = aAvailable - aOffset;
    return aLength < rest ? aLength : rest;
}

}  // namespace

ComMessageBlock::DataBlock* ComMessageBlock::DataBlock::create_block(const unsigned char* aData,
                                                                     unsigned long aLength) {
    if (aLength > static_cast<unsigned long>(-1) - sizeof(DataBlock)) return nullptr;
    void* memory = malloc(sizeof(DataBlock) + aLength);
    if (!memory) return nullptr;
    unsigned char* content = static_cast<unsigned char*>(memory) + sizeof(DataBlock);
    if (aData && aLength) memcpy(content, aData, aLength);
    return new (memory) DataBlock(content, aLength);
}

// The object lives at the front of its own malloc, so it goes back with free.
void ComMessageBlock::DataBlock::DestroyThis() {
    this->~DataBlock();
    free(this);
}

ComMessageBlock::ComMessageBlock(const unsigned char* aData, unsigned long aLength)
    : m_pBegin(nullptr), m_pEnd(nullptr), m_pRead(nullptr), m_pWrite(nullptr) {
    if (aData && aLength) AssignValue(aData, aLength);
}

ComMessageBlock::ComMessageBlock(unsigned long aCapacity)
    : m_pBegin(nullptr), m_pEnd(nullptr), m_pRead(nullptr), m_pWrite(nullptr) {
    if (aCapacity) AssignValue(nullptr, aCapacity);
}

ComMessageBlock::ComMessageBlock(const ComMessageBlock& aOther)
    : m_pBegin(nullptr), m_pEnd(nullptr), m_pRead(nullptr), m_pWrite(nullptr) {
    CopyFrom(aOther);
}

ComMessageBlock& ComMessageBlock::operator=(const ComMessageBlock& aOther) {
    if (this != &aOther) CopyFrom(aOther);
    return *this;
}

void ComMessageBlock::AssignValue(const unsigned char* aData, unsigned long aLength) {
    DataBlock* block = DataBlock::create_block(aData, aLength);
    if (!block) return;
    m_dataBlock = block;
    m_pBegin = block->GetConPtr();
    m_pEnd = m_pBegin + aLength;
    m_pRead = m_pBegin;
    m_pWrite = aData ? m_pBegin + aLength : m_pBegin;
}

void ComMessageBlock::CopyFrom(const ComMessageBlock& aOther) {
    m_dataBlock = aOther.m_dataBlock;
    m_pBegin = aOther.m_pBegin;
    m_pEnd = aOther.m_pEnd;
    m_pRead = aOther.m_pRead;
    m_pWrite = aOther.m_pWrite;
}

unsigned long ComMessageBlock::ReadImpl(unsigned char* aDest, unsigned long aLength,
                                        unsigned long aOffset, bool aAdvance) {
    if (!m_pRead || !m_pWrite) return 0;
    if (aOffset >= GetReadableLength()) return 0;
    const unsigned long count = Fitting(GetReadableLength(), aLength, aOffset);
    if (aDest && count) memcpy(aDest, m_pRead + aOffset, count);
    // The skipped offset bytes are consumed too.
    if (aAdvance) m_pRead += count + aOffset;
    return count;
}

unsigned long ComMessageBlock::WriteImpl(const unsigned char* aSrc, unsigned long aLength,
                                         unsigned long aOffset, bool aAdvance) {
    if (!m_pEnd || !m_pWrite) return 0;
    if (aOffset >= GetWritableCapacity()) return 0;
    const unsigned long count = Fitting(GetWritableCapacity(), aLength, aOffset);
    if (aSrc && count) memcpy(m_pWrite + aOffset, aSrc, count);
    if (aAdvance) m_pWrite += count + aOffset;
    return count;
}

unsigned long ComMessageBlock::Read(unsigned char* aDest, unsigned long aLength, bool aAdvance) {
    return ReadImpl(aDest, aLength, 0, aAdvance);
}

unsigned long ComMessageBlock::ReadByOffset(unsigned char* aDest, unsigned long aLength,
                                            unsigned long aOffset) {
    return ReadImpl(aDest, aLength, aOffset, false);
}

unsigned long ComMessageBlock::Write(const unsigned char* aSrc, unsigned long aLength,
                                     bool aAdvance) {
    return WriteImpl(aSrc, aLength, 0, aAdvance);
}

unsigned long ComMessageBlock::WriteByOffset(const unsigned char* aSrc, unsigned long aLength,
                                             unsigned long aOffset) {
    return WriteImpl(aSrc, aLength, aOffset, false);
}

unsigned long ComMessageBlock::GetReadableLength() const {
    return static_cast<unsigned long>(m_pWrite - m_pRead);
}

unsigned long ComMessageBlock::GetWritableCapacity() const {
    return static_cast<unsigned long>(m_pEnd - m_pWrite);
}

unsigned long ComMessageBlock::FillByte(unsigned char aValue, unsigned long aCount, bool aAdvance) {
    const unsigned long count = Fitting(GetWritableCapacity(), aCount, 0);
    if (count == 0) return 0;
    memset(m_pWrite, aValue, count);
    if (aAdvance) m_pWrite += count;
    return count;
}

unsigned long ComBufferBlockWrapper::Read(unsigned char* aDest, unsigned long aLength,
                                          bool aAdvance) {
    if (!aDest || !aLength || !m_pBuffer || !m_size) return 0;
    const unsigned long count = Fitting(GetReadableLength(), aLength, 0);
    if (count) memcpy(aDest, m_pBuffer + m_pos, count);
    if (aAdvance) m_pos += count;
    return count;
}

unsigned long ComBufferBlockWrapper::Write(const unsigned char* aSrc, unsigned long aLength,
                                           bool aAdvance) {
    if (!aSrc || !aLength || !m_pBuffer || !m_size) return 0;
    const unsigned long count = Fitting(GetWritableCapacity(), aLength, 0);
    if (count) memcpy(m_pBuffer + m_pos, aSrc, count);
    if (aAdvance) m_pos += count;
    return count;
}

unsigned long ComBufferBlockWrapper::FillByte(unsigned char aValue, unsigned long aCount,
                                              bool aAdvance) {
    // A null buffer would crash the memset; it takes nothing instead.
    if (!m_pBuffer) return 0;
    const unsigned long count = Fitting(GetWritableCapacity(), aCount, 0);
    if (count) memset(m_pBuffer + m_pos, aValue, count);
    if (aAdvance) m_pos += count;
    return count;
}
