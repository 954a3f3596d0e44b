// The primitives' trace shim: "[TF]:" lines, their levels, silenced modules,
// the 1022-character cut, and refused configuration.
#include "test_support.h"

namespace {

using webrtc::Trace;
using webrtc::TraceLevel;
using webrtc::TraceModule;

// Before anything traces: lines long enough that the facility's 512-character
// default does not hide how the shim cuts long messages.
CMyTraceImpl_* const gWideTrace =
    CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "zemtrace", 2048, 1, 2, 52428800);

TraceLevel Level(int aValue) {
    return static_cast<TraceLevel>(aValue);
}
TraceModule Module(int aValue) {
    return static_cast<TraceModule>(aValue);
}

TEST(TraceShim, LevelTableAndIds) {
    TraceCapture trace;
    Trace::Add(Level(4), Module(2), 7, "x=%d", 5);
    Trace::Add(Level(2), Module(2), 7, "careful");
    for (int info : {1, 8, 16, 32, 4096}) Trace::Add(Level(info), Module(2), 7, "level %d", info);
    for (int debug : {0, 3, 64, 2048}) Trace::Add(Level(debug), Module(2), -3, "level %d", debug);

    EXPECT_TRUE(trace.Traced(kError, "[TF]:x=5"));
    EXPECT_TRUE(trace.Traced(kWarning, "[TF]:careful"));
    for (int info : {1, 8, 16, 32, 4096}) {
        EXPECT_TRUE(trace.Traced(kInfo, "[TF]: id=7, level " + std::to_string(info)));
    }
    for (int debug : {0, 3, 64, 2048}) {
        EXPECT_TRUE(trace.Traced(kDebug, "[TF]: id=-3, level " + std::to_string(debug)));
    }
    EXPECT_EQ(11u, trace.Lines().size());
    for (const CapturedLine& line : trace.Lines()) EXPECT_EQ(7, line.tag);
}

TEST(TraceShim, SilencedModulesNullFormatAndTheCut) {
    TraceCapture trace;
    const char* noFormat = nullptr;
    for (int module = 0; module <= 20; ++module) {
        Trace::Add(Level(4), Module(module), 1, "module %d", module);
        Trace::Add(Level(1), Module(module), 1, noFormat);
    }
    for (int silenced : {1, 7, 8, 9, 10, 11, 18}) {
        EXPECT_EQ(0u, trace.CountMatching(TraceCapture::kAnyLevel,
                                          "\\[TF\\]:module " + std::to_string(silenced)));
    }
    EXPECT_EQ(14u, trace.Lines().size());

    trace.Clear();
    const std::string longText(2000, 'a');
    Trace::Add(Level(4), Module(2), 1, "%s", longText.c_str());
    ASSERT_EQ(1u, trace.Lines().size());
    // The shim keeps 1022 characters; the line builder's 1024-byte buffer
    // then keeps 1023 characters of the whole text.
    EXPECT_EQ("[TF]:" + std::string(1018, 'a'), trace.Lines()[0].text);
}

TEST(TraceShim, ConfigurationIsRefused) {
    unsigned int filter = 42;
    char name[8] = "keep";
    EXPECT_EQ(-1, Trace::SetLevelFilter(0));
    EXPECT_EQ(-1, Trace::LevelFilter(filter));
    EXPECT_EQ(42u, filter);
    EXPECT_EQ(-1, Trace::SetTraceFile("other.log", true));
    EXPECT_EQ(-1, Trace::TraceFile(name));
    EXPECT_STREQ("keep", name);
    EXPECT_EQ(-1, Trace::SetTraceCallback(nullptr));
    Trace::ReturnTrace();
    // The existing facility, with its own parameters, is kept.
    EXPECT_EQ(gWideTrace, Trace::CreateTrace());
    EXPECT_EQ(2048u, gWideTrace->m_maxLineLength);
}

}  // namespace
