// Processor load, core count, host facts and feature tests.
#include <sched.h>
#include <stdio.h>
#include <tuple>

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

TEST_F(CpuWrapperTest, FiguresHoldForHalfASecondThenFollowBusyTicks) {
    PutStat(m_path, 100, 100, 100);
    CpuWrapperLinux cpu(m_path.c_str());
    ASSERT_EQ(2u, cpu.m_coreCount);

    // New ticks inside 500 ms change nothing.
    PutStat(m_path, 5100, 2100, 100);
    unsigned int cores = 0;
    unsigned int* usage = nullptr;
    EXPECT_EQ(0, cpu.CpuUsageMultiCore(cores, usage));
    EXPECT_EQ(2u, cores);
    EXPECT_EQ(cpu.m_coreUsage, usage);
    EXPECT_EQ(0u, usage[0] + usage[1]);

    // 100 s later: 7000 busy ticks (user + system, nice excluded) are 70 %.
    cpu.m_lastUpdateMs -= 100000;
    const int average = cpu.CpuUsageMultiCore(cores, usage);
    EXPECT_NEAR(70, usage[0], 1);
    EXPECT_EQ(0u, usage[1]);
    EXPECT_EQ(static_cast<int>((usage[0] + usage[1]) / 2), average);
    PutStat(m_path, 9100, 9100, 9100);
    EXPECT_EQ(average, cpu.CpuUsage());
    EXPECT_NEAR(70, usage[0], 1);

    // A failed measurement keeps the last figures.
    std::ofstream(m_path) << "cpu0 garbage\n";
    cpu.m_lastUpdateMs -= 100000;
    EXPECT_EQ(-1, cpu.CpuUsage());
    EXPECT_NEAR(70, usage[0], 1);
    EXPECT_EQ(-1, cpu.CpuUsage(nullptr, 0u));
    EXPECT_EQ(-1, cpu.CpuUsage(1u));
}

TEST(CpuWrapper, InertWithoutASourceAndInRangeOnThisHost) {
    CpuWrapperLinux inert("/nonexistent/stat");
    unsigned int cores = 7;
    unsigned int* usage = nullptr;
    EXPECT_EQ(0u, inert.m_coreCount);
    EXPECT_EQ(-1, inert.CpuUsage());
    EXPECT_EQ(-1, inert.CpuUsageMultiCore(cores, usage));
    EXPECT_EQ(7u, cores);

    webrtc::CpuWrapper* cpu = webrtc::CpuWrapper::CreateCpu();
    ASSERT_NE(nullptr, cpu);
    EXPECT_EQ(static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_ONLN)),
              static_cast<CpuWrapperLinux*>(cpu)->m_coreCount);
    // One core is kept busy by a pinned thread while the others idle.
    int busyCore = sched_getcpu();
    std::atomic<bool> stop{false};
    std::thread spinner([&] {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(busyCore, &set);
        sched_setaffinity(0, sizeof(set), &set);
        while (!stop.load(std::memory_order_relaxed)) {
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    const int average = cpu->CpuUsageMultiCore(cores, usage);
    stop = true;
    spinner.join();
    ASSERT_GE(average, 0);
    ASSERT_EQ(sysconf(_SC_NPROCESSORS_ONLN), cores);
    for (unsigned int i = 0; i < cores; ++i) EXPECT_LE(usage[i], 150u) << "core " << i;
    EXPECT_GT(usage[busyCore], 0u);
    delete cpu;
}

TEST(ComCpuInfo, CachedCountAndFactsTheHostStored) {
    EXPECT_EQ(sysconf(_SC_NPROCESSORS_ONLN), ComCpuInfo::GetCpuCoreNums());
    ComCpuInfo::_nums_cores = 3;
    EXPECT_EQ(3, ComCpuInfo::GetCpuCoreNums());
    ComCpuInfo::_nums_cores = 0;

    // Nothing is known until the host stores it; facts are copied out only
    // in pairs that are both known.
    EXPECT_EQ(0ul, ComCpuInfo::GetRawMemory());
    unsigned long max = 11, min = 22;
    auto category = static_cast<webrtc::COM_CPUHW_CATEGORY>(5);
    auto arch = static_cast<webrtc::COM_CPU_ARCHITECT>(6);
    ComCpuInfo::_max_frequency = 3000;
    ComCpuInfo::_cpu_category = static_cast<webrtc::COM_CPUHW_CATEGORY>(1);
    EXPECT_EQ(0,
              ComCpuInfo::GetCpuFrequences(max, min) + ComCpuInfo::GetCpuCategory(category, arch));
    EXPECT_EQ(std::make_tuple(11ul, 22ul, 5, 6), std::make_tuple(max, min, +category, +arch));
    ComCpuInfo::_min_frequency = 800;
    ComCpuInfo::_cpu_arch = static_cast<webrtc::COM_CPU_ARCHITECT>(2);
    EXPECT_EQ(0,
              ComCpuInfo::GetCpuFrequences(max, min) + ComCpuInfo::GetCpuCategory(category, arch));
    EXPECT_EQ(std::make_tuple(3000ul, 800ul, 1, 2), std::make_tuple(max, min, +category, +arch));
    ComCpuInfo::_ram_capability = 4096;
    EXPECT_EQ(4096ul, ComCpuInfo::GetRawMemory());
}

TEST(CpuFeatures, OnlyFeaturesZeroAndOneCanAnswerOne) {
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
