// What every fuzz target shares: a reader that turns the fuzzer's bytes into
// calls and arguments, and a check that fails loudly. Reading past the end
// yields zeros, so every input decodes to some sequence of calls.
#ifndef SW_FUZZ_INPUT_H_
#define SW_FUZZ_INPUT_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

// Unlike assert, stays on in release builds: a broken promise is the finding.
#define FUZZ_CHECK(cond)                                                             \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            abort();                                                                 \
        }                                                                            \
    } while (0)

class FuzzInput {
public:
    FuzzInput(const uint8_t* aData, size_t aSize) : m_data(aData), m_size(aSize) {}

    bool Empty() const { return m_pos >= m_size; }

    uint8_t Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }

    uint32_t U32() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) value = value << 8 | Byte();
        return value;
    }

    // A value in [0, aBound), aBound > 0; small bounds take one byte.
    uint32_t Below(uint32_t aBound) { return (aBound <= 256 ? Byte() : U32()) % aBound; }

    // Up to aMax raw bytes, fewer when the input runs out.
    std::string Bytes(size_t aMax) {
        size_t count = Below(static_cast<uint32_t>(aMax) + 1);
        if (count > m_size - m_pos) count = m_size - m_pos;  // m_pos never passes m_size
        std::string out(reinterpret_cast<const char*>(m_data + m_pos), count);
        m_pos += count;
        return out;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

#endif  // SW_FUZZ_INPUT_H_
