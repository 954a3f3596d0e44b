// The text builder against printf, and the line that CMyTrace_::Write hands to
// the host callback against the text it was given.
#include <stdarg.h>
#include <string.h>
#include <unistd.h>

#include "fuzz_input.h"
#include "mtrace.h"

namespace {

std::string gLine;  // the last line delivered to the callback
int gLevel = -1;

void Capture(int aConstant, int aLevel, const char* aFormat, ...) {
    FUZZ_CHECK(aConstant == 7 && strcmp(aFormat, "%s") == 0);
    va_list args;
    va_start(args, aFormat);
    gLine = va_arg(args, const char*);
    va_end(args);
    gLevel = aLevel;
}

template <class T>
std::string Printf(const char* aFormat, T aValue) {
    char text[400];
    snprintf(text, sizeof(text), aFormat, aValue);
    return text;
}

// Appends aValue; returns what printf makes of aPrinted with aFormat.
template <class T, class P>
std::string Put(CMyTextFormat& aText, T aValue, const char* aFormat, P aPrinted) {
    aText << aValue;
    return Printf(aFormat, aPrinted);
}

// Appends one value of a type the input picks; returns what printf makes of it.
std::string AppendOne(FuzzInput& aIn, CMyTextFormat& aText) {
    const uint64_t bits = static_cast<uint64_t>(aIn.U32()) << 32 | aIn.U32();
    switch (aIn.Below(12)) {
        case 0: {
            const char value = static_cast<char>(bits);
            aText << value;
            return value >= 32 && value <= 126 ? std::string(1, value)
                                               : Printf("%ld", static_cast<long>(value));
        }
        case 1: {
            const std::string value = aIn.Bytes(300);
            aText << value.c_str();  // up to its first zero, as a C string
            return value.c_str();
        }
        case 2:
            return Put(aText, static_cast<const char*>(nullptr), "%p", nullptr);
        case 3:
            return Put(aText, static_cast<int>(bits), "%ld", long(int(bits)));
        case 4:
            return Put(aText, static_cast<unsigned short>(bits), "%lu", bits & 0xffff);
        case 5:
            return Put(aText, static_cast<unsigned int>(bits), "%lu", bits & 0xffffffff);
        case 6:
            return Put(aText, static_cast<long>(bits), "%ld", long(bits));
        case 7:
            return Put(aText, static_cast<unsigned long>(bits), "%lu", bits);
        case 8:
            return Put(aText, static_cast<long long>(bits), "%lld", (long long)bits);
        case 9:
            return Put(aText, static_cast<unsigned long long>(bits), "%llu", bits);
        case 10:
            return Put(aText, reinterpret_cast<const void*>(bits), "%p", (void*)bits);
        default: {
            double value;
            memcpy(&value, &bits, sizeof(value));
            if (aIn.Byte() & 1) value = static_cast<double>(static_cast<int64_t>(bits)) / 1e6;
            aText << value;
            return Printf("%f", value);
        }
    }
}

// The builder holds exactly what was appended, up to its capacity, and stops there.
void CheckContent(const CMyTextFormat& aText, const std::string& aModel) {
    unsigned int length = 0;
    const char* content = aText.GetContent(length);
    const unsigned int kept = aModel.size() < CMyTextFormat::kCapacity
                                  ? static_cast<unsigned int>(aModel.size())
                                  : CMyTextFormat::kCapacity - 1;
    FUZZ_CHECK(length ==
               (aModel.size() < CMyTextFormat::kCapacity ? kept : CMyTextFormat::kCapacity));
    FUZZ_CHECK(memcmp(content, aModel.data(), kept) == 0 && content[kept] == '\0');
}

// "[L:ENG+pid:tid] sec.usec " then as much of the text as fits in 512, then a newline.
void CheckLine(int aLevel, const std::string& aText) {
    static const char kLetters[] = "DIWE";
    FUZZ_CHECK(gLevel == aLevel);
    char head[32];
    const int headLength =
        snprintf(head, sizeof(head), "[%c:ENG+%d:", kLetters[aLevel > 3 ? 3 : aLevel],
                 static_cast<int>(getpid()));
    FUZZ_CHECK(gLine.compare(0, headLength, head) == 0);
    size_t pos = gLine.find("] ", headLength);
    FUZZ_CHECK(pos != std::string::npos &&
               gLine.find_first_not_of("0123456789", headLength) == pos);
    const size_t dot = gLine.find('.', pos + 2);
    FUZZ_CHECK(dot != std::string::npos && dot > pos + 2 &&
               gLine.find_first_not_of("0123456789", pos + 2) == dot);
    FUZZ_CHECK(gLine.find_first_not_of("0123456789", dot + 1) == dot + 7 && gLine[dot + 7] == ' ');
    const size_t prefix = dot + 8;
    const size_t copied = std::min(aText.size(), 512 - prefix);
    FUZZ_CHECK(gLine.size() == prefix + copied + 1 && gLine.back() == '\n');
    FUZZ_CHECK(gLine.compare(prefix, copied, aText, 0, copied) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    CMyTrace_::SetLogCallback(Capture);
    FuzzInput in(aData, aSize);
    CMyTextFormat text;
    std::string model;
    while (!in.Empty()) {
        const int level = in.Below(8);
        if (in.Byte() % 8 != 0) {
            model += AppendOne(in, text);
            CheckContent(text, model);
            continue;
        }
        // Write either the built text or raw bytes; a zero would end the C string
        // that the callback receives, so raw bytes carry none.
        std::string line = model.substr(0, CMyTextFormat::kCapacity - 1);
        if (in.Byte() & 1) {
            line = in.Bytes(1200);
            for (char& c : line) c = c ? c : '0';
        }
        CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, static_cast<MTRACE_LEVEL_TYPE>(level), line.data(),
                         static_cast<unsigned int>(line.size()));
        CheckLine(level, line);
    }
    return 0;
}
