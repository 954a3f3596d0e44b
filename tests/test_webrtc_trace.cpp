// The primitives' trace shim: "[TF]:" lines, their levels, silenced modules,
// the 1022-character cut, and refused configuration.
#include "test_support.h"

namespace {

using webrtc::Trace;

// Before anything traces: lines long enough that the facility's 512-character
// default does not hide how the shim cuts long messages.
CMyTraceImpl_* const gWideTrace =
    CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "zemtrace", 2048, 1, 2, 52428800);

// Trace::Add with plain numbers for the level and the module.
template <class... Args>
void Add(int aLevel, int aModule, int aId, const char* aFormat, Args... aArgs) {
    Trace::Add(static_cast<webrtc::TraceLevel>(aLevel), static_cast<webrtc::TraceModule>(aModule),
               aId, aFormat, aArgs...);
}

TEST(TraceShim, LevelsIdsSilencedModulesTheCutAndRefusedConfiguration) {
    TraceCapture trace;
    // Error and warning lines carry no id; every other level is info or debug.
    Add(4, 2, 7, "x=%d", 5);
    Add(2, 2, 7, "careful");
    EXPECT_TRUE(trace.Traced(kError, "[TF]:x=5"));
    EXPECT_TRUE(trace.Traced(kWarning, "[TF]:careful"));
    const int levels[][2] = {{1, kInfo},  {8, kInfo},  {16, kInfo},  {32, kInfo},   {4096, kInfo},
                             {0, kDebug}, {3, kDebug}, {64, kDebug}, {2048, kDebug}};
    for (const auto& [level, traced] : levels) {
        Add(level, 2, -3, "level %d", level);
        EXPECT_TRUE(trace.Traced(traced, "[TF]: id=-3, level " + std::to_string(level)));
    }

    for (int module = 0; module <= 20; ++module) {
        Add(4, module, 1, "module %d", module);
        Add(1, module, 1, nullptr);
    }
    EXPECT_EQ(0u, trace.CountMatching(TraceCapture::kAnyLevel,
                                      "\\[TF\\]:module (1|7|8|9|10|11|18)"));  // silenced
    // One line per call (11 levels, 14 modules that speak, a long message); the shim
    // keeps 1022 characters, the line builder's 1024-byte buffer 1023 of the whole text.
    Add(4, 2, 1, "%s", std::string(2000, 'a').c_str());
    ASSERT_EQ(26u, trace.Lines().size());
    EXPECT_EQ("[TF]:" + std::string(1018, 'a'), trace.Lines().back().text);
    for (const CapturedLine& line : trace.Lines()) EXPECT_EQ(7, line.tag);

    // Configuration is refused; the existing facility keeps its own parameters.
    unsigned int filter = 0;
    char name[8] = {};
    EXPECT_EQ(-5, Trace::SetLevelFilter(0) + Trace::LevelFilter(filter) + Trace::TraceFile(name) +
                      Trace::SetTraceFile("other.log", true) + Trace::SetTraceCallback(nullptr));
    Trace::ReturnTrace();
    EXPECT_EQ(gWideTrace, Trace::CreateTrace());
    EXPECT_EQ(2048u, gWideTrace->m_maxLineLength);
}

}  // namespace
