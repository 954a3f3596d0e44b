// The file wrappers against a model of the file's bytes and position, through
// opens in every mode, transfers, seeks, closes and reopens.
#include <fcntl.h>
#include <libgen.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "ZemFile.h"
#include "file_wrapper.h"
#include "fuzz_input.h"

namespace {

char gPath[64];  // one file in a private directory per process
CZemFileUnix gDirect;
CZemFileStd gStream;
CZemFileWrapper* const gZem[3] = {CZemFileWrapper::Create(), &gDirect, &gStream};
webrtc::FileWrapper* const gFw = webrtc::FileWrapper::Create();

struct Model {
    std::string bytes;
    bool exists = false, canRead = false, canWrite = false, append = false, loop = false;
    int kind = -1;  // the open one: 0 to 2 gZem, 3 gFw by name, 4 gFw by stream
    long long pos = 0;
    size_t maxSize = 0, written = 0;
    FILE* adopted = nullptr;  // a stream gFw does not manage
};

void Open(FuzzInput& aIn, Model& m) {
    const int kind = aIn.Below(5), type = aIn.Below(4);
    const bool flag = aIn.Byte() & 1, other = aIn.Byte() & 1, readOnly = type == 0;
    FILE* h = kind < 4 || (readOnly && !m.exists) ? nullptr : fopen(gPath, readOnly ? "rb" : "ab");
    const int rv = kind < 3    ? gZem[kind]->OpenFile(gPath, FILE_RW_TYPE(type), flag, other)
                   : kind == 3 ? gFw->OpenFile(gPath, readOnly, other && readOnly, flag)
                               : gFw->OpenFromFileHandle(h, flag, readOnly, other && readOnly);
    if ((kind < 3 && type == 3) || (readOnly && !m.exists)) {  // the file system is not touched
        FUZZ_CHECK(rv == -1 && access(gPath, F_OK) == (m.exists ? 0 : -1));
        return;
    }
    FUZZ_CHECK(rv == 0 && (kind < 3 || gFw->OpenFile(gPath, true) == -1));
    if (!readOnly && (kind < 2 ? flag : kind == 2 ? !flag : kind == 3)) m.bytes.clear();
    m.exists = true, m.kind = kind, m.written = 0, m.loop = other && kind > 2 && readOnly;
    m.canRead = kind < 3 ? type != 1 : readOnly, m.canWrite = !readOnly;
    m.append = !readOnly && (kind == 2 ? flag : kind == 4);
    m.pos = m.append && (kind == 4 || type == 1) ? m.bytes.size() : 0;  // "a" starts at the end
    m.adopted = h && !flag ? h : nullptr;
    char name[80];
    FUZZ_CHECK(kind < 3 || (gFw->FileName(name, 80) == 0 && !strcmp(name, kind == 3 ? gPath : "")));
}

void Close(Model& m) {
    FUZZ_CHECK((m.kind < 3 ? gZem[m.kind]->CloseFile() : gFw->CloseFile()) == 0);
    if (m.adopted) FUZZ_CHECK(ftello(m.adopted) == m.pos && fclose(m.adopted) == 0);  // still ours
    m.kind = -1, m.adopted = nullptr;
    unsigned char b = 0;
    for (CZemFileWrapper* z : gZem) FUZZ_CHECK(z->CloseFile() == -1 && z->WriteTo(&b, 1) == -1);
    FUZZ_CHECK(!gFw->Open() && gFw->CloseFile() == -1 && gFw->Read(&b, 1) == -1);
    const std::string tooLong = std::string(1024 - strlen(gPath), '/') + gPath;  // yet valid
    FUZZ_CHECK(gFw->OpenFile(tooLong.c_str(), false) == -1 && gFw->OpenFile(nullptr, false) == -1);
}

void Step(FuzzInput& aIn, Model& m) {
    const int op = aIn.Below(8);
    CZemFileWrapper* zem = m.kind >= 0 && m.kind < 3 ? gZem[m.kind] : nullptr;
    // A C stream may not turn between writing and reading without a seek; FileWrapper
    // takes care of that itself.
    if (m.kind == 2 && op > 0 && op < 5) FUZZ_CHECK(zem->SeekPos(0, SEEK_FROM_CURRENT) == m.pos);
    if (op == 7) {  // the limit outlives a close
        m.maxSize = aIn.Byte() & 1 ? 0 : aIn.Below(20000);
        FUZZ_CHECK(gFw->SetMaxFileSize(m.maxSize) == 0);
    } else if (m.kind < 0 || op == 0) {
        m.kind < 0 ? Open(aIn, m) : Close(m);
    } else if (op <= 2) {
        std::string data = aIn.Bytes(64);
        const uint8_t shape = aIn.Byte();
        if (shape < 24) data.resize(aIn.Below(9000), 'w');         // past the stream buffers
        if (shape >= 24 && shape < 48 && m.maxSize > m.written) {  // up to the limit, or just past
            data.resize(m.maxSize - m.written + shape % 2, 'm');
        }
        if (op == 2) std::replace(data.begin(), data.end(), '\0', '0');
        const int len = static_cast<int>(data.size());
        const auto* p = reinterpret_cast<const unsigned char*>(data.data());
        const bool ok = m.canWrite && (zem || !m.maxSize || m.written + len <= m.maxSize);
        if (zem) {  // CZemFileStd answers whole blocks
            FUZZ_CHECK(zem->WriteTo(p, len) == (m.kind == 2 ? ok && len : ok ? len : -1));
        } else {
            FUZZ_CHECK(op == 1 ? gFw->Write(p, len) == ok
                               : gFw->WriteText("%s", data.c_str()) == (ok ? len : -1));
        }
        if (!ok || !len) return;
        const size_t at = m.append ? m.bytes.size() : m.pos;
        m.bytes.resize(std::max(m.bytes.size(), at + len), '\0');  // a seek past the end: a hole
        m.bytes.replace(at, len, data);
        m.pos = at + len, m.written += len;
    } else if (op <= 4) {
        const long long size = m.bytes.size();
        const uint8_t shape = aIn.Byte();  // long, up to the end exactly, or short
        const int len = shape < 16   ? aIn.Below(9000)
                        : shape < 32 ? std::max(0, static_cast<int>(size - m.pos))
                                     : aIn.Below(300);
        std::vector<unsigned char> buf(len + 1, 0xee);
        const int rv = zem ? zem->ReadFrom(buf.data(), len) : gFw->Read(buf.data(), len);
        const int got = m.canRead ? std::max(0LL, std::min<long long>(len, size - m.pos)) : 0;
        // Reading a write-only file: no bytes from a C stream, a failure from the others.
        FUZZ_CHECK(rv == (m.canRead || m.kind == 2 || (m.kind > 2 && !len) ? got : -1));
        FUZZ_CHECK(buf[got] == 0xee && (!got || !memcmp(buf.data(), &m.bytes[m.pos], got)));
        m.pos += got;
        if (m.loop && m.pos == size) m.pos = 0;
    } else if (op == 5 && zem) {
        const int from = aIn.Below(4);
        long long off = static_cast<long long>(aIn.Below(512)) - 256;
        if (aIn.Byte() < 16) off += 3LL << 30;  // far past the end: CZemFileUnix wraps it
        const long long base[] = {0, m.pos, static_cast<long long>(m.bytes.size()), 0};
        const long long target = off + base[from];
        const bool bad = from == 3 || target < 0;
        const long long rv = zem->SeekPos(off, SEEK_FROM(from));
        FUZZ_CHECK(rv == (bad ? -1 : m.kind < 2 ? static_cast<int32_t>(target) : target));
        if (!bad && target < (1LL << 30)) m.pos = target;
        FUZZ_CHECK(zem->SeekPos(m.pos, SEEK_FROM_BEGIN) == m.pos);
    } else if (zem) {
        FUZZ_CHECK(zem->GetFileSize() == static_cast<long long>(m.bytes.size()));
    } else {
        FUZZ_CHECK((op == 5 ? gFw->Rewind() : gFw->Flush()) == 0);
        if (op == 5) m.pos = 0;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    if (!gPath[0]) {
        strcpy(gPath, "/tmp/sw_fuzz_file_XXXXXX");
        FUZZ_CHECK(mkdtemp(gPath) != nullptr);
        strcat(gPath, "/f");
        atexit([] { unlink(gPath), rmdir(dirname(gPath)); });
    }
    unlink(gPath);
    gFw->SetMaxFileSize(0);
    const int probe = dup(2);  // still free at the end: nothing left open
    close(probe);
    FuzzInput in(aData, aSize);
    Model m;
    while (!in.Empty()) Step(in, m);
    if (m.kind >= 0) Close(m);
    FUZZ_CHECK(fcntl(probe, F_GETFD) == -1);
    return 0;
}
