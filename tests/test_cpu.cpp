// Processor load, core count and feature tests.
#include "test_support.h"

namespace {

using webrtc::ComCpuInfo;
using webrtc::CpuWrapperLinux;

using CpuWrapperTest = TempDirTest;

// A statistics file of two cores with the given user, nice and system ticks.
void PutStat(const std::string& aPath, unsigned long long aUser0, unsigned long long aSystem0,
             unsigned long long aUser1) {
    std::ofstream(aPath) << "cpu  1 2 3 4 5 6 7 8 9 10\n"
                         << "cpu0 " << aUser0 << " 9999 " << aSystem0 << " 400 0 0 0 0 0 0\n"
                         << "cpu1 " << aUser1 << " 9999 0 400 0 0 0 0 0 0\nintr 1 2 3\n";
}

TEST_F(CpuWrapperTest, InertWithoutASourceThenFiguresFollowBusyTicks) {
    unsigned int cores = 7;
    unsigned int* usage = nullptr;
    EXPECT_EQ(-1, CpuWrapperLinux("/nonexistent/stat").CpuUsageMultiCore(cores, usage));
    EXPECT_EQ(7u, cores);
    // By default it reads this host's statistics: one entry per online core.
    std::unique_ptr<webrtc::CpuWrapper> host(webrtc::CpuWrapper::CreateCpu());
    EXPECT_EQ(static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_ONLN)),
              static_cast<CpuWrapperLinux*>(host.get())->m_coreCount);

    PutStat(m_path, 100, 100, 100);
    CpuWrapperLinux cpu(m_path.c_str());
    // New ticks inside 500 ms change nothing.
    PutStat(m_path, 5100, 2100, 100);
    EXPECT_EQ(0, cpu.CpuUsageMultiCore(cores, usage));
    ASSERT_EQ(2u, cores);
    EXPECT_EQ(0u, usage[0] + usage[1]);

    // 100 s later: 7000 busy ticks (user + system, nice excluded) are 70 %.
    cpu.m_lastUpdateMs -= 100000;
    const int average = cpu.CpuUsageMultiCore(cores, usage);
    EXPECT_NEAR(70, usage[0], 1);
    EXPECT_EQ(0u, usage[1]);
    EXPECT_EQ(static_cast<int>((usage[0] + usage[1]) / 2), average);
    PutStat(m_path, 9100, 9100, 9100);
    EXPECT_EQ(average, cpu.CpuUsage());

    // Half a second on it measures again; a failed measurement keeps the last figures.
    std::ofstream(m_path) << "cpu0 garbage\n";
    cpu.m_lastUpdateMs -= 500;
    EXPECT_EQ(-1, cpu.CpuUsage());
    EXPECT_NEAR(70, usage[0], 1);
    EXPECT_EQ(-1, cpu.CpuUsage(nullptr, 0u));
    EXPECT_EQ(-1, cpu.CpuUsage(1u));
}

TEST(ComCpuInfo, CachedCountAndFeatureTests) {
    EXPECT_EQ(sysconf(_SC_NPROCESSORS_ONLN), ComCpuInfo::GetCpuCoreNums());
    ComCpuInfo::_nums_cores = 3;  // the count is cached, not asked again
    EXPECT_EQ(3, ComCpuInfo::GetCpuCoreNums());

    for (int feature : {-1, 2, 3, 1000}) {
        EXPECT_EQ(0, WebRtc_GetCPUInfo(static_cast<webrtc::CPUFeature>(feature)));
    }
#if defined(__x86_64__)
    EXPECT_EQ(1, WebRtc_GetCPUInfo(webrtc::kSSE2));  // every x86-64 processor has it
#endif
    const int sse3 = WebRtc_GetCPUInfo(webrtc::kSSE3);
    EXPECT_TRUE(sse3 == 0 || sse3 == 1);
    EXPECT_EQ(0, WebRtc_GetCPUInfoNoASM(webrtc::kSSE2) + WebRtc_GetCPUInfoNoASM(webrtc::kSSE3));
}

}  // namespace
