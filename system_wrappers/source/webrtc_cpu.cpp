#include "webrtc_cpu.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <new>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include "sw_trace.h"
#include "tick_util.h"

namespace webrtc {

namespace {

constexpr long long kMinMeasuringIntervalMs = 500;

// Reads the busy ticks (user + system) of each "cpuN" line, in file order,
// into aTicks (at most aCapacity of them). Returns how many cores the file
// lists, or -1 when it cannot be read or lists none.
int ReadBusyTicks(const char* aPath, unsigned long long* aTicks, unsigned int aCapacity) {
    FILE* file = fopen(aPath, "re");
    if (!file) return -1;
    int cores = 0;
    bool inCpuLines = false;
    char line[512];
    while (fgets(line, sizeof(line), file)) {
        const bool isCore = strncmp(line, "cpu", 3) == 0 && isdigit(static_cast<unsigned char>(line[3]));
        if (!isCore) {
            // The per-core lines come as one block near the top; the rest is
            // long and of no interest.
            if (inCpuLines) break;
            continue;
        }
        inCpuLines = true;
        unsigned long long user = 0, nice = 0, system = 0;
        const char* fields = strchr(line, ' ');
        if (!fields || sscanf(fields, "%llu %llu %llu", &user, &nice, &system) != 3) {
            fclose(file);
            return -1;
        }
        if (aTicks && static_cast<unsigned int>(cores) < aCapacity) aTicks[cores] = user + system;
        ++cores;
    }
    fclose(file);
    return cores > 0 ? cores : -1;
}

int ReadCpuInfo(CPUFeature aFeature) {
#if defined(__x86_64__) || defined(__i386__)
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return 0;
    switch (static_cast<int>(aFeature)) {
        case kSSE2: return (edx >> 26) & 1;
        case kSSE3: return ecx & 1;
        default: return 0;
    }
#else
    (void)aFeature;
    return 0;
#endif
}

}  // namespace

int GetCPUInfo(CPUFeature aFeature) {
    return ReadCpuInfo(aFeature);
}

int GetCPUInfoNoASM(CPUFeature) {
    return 0;
}

CpuWrapper* CpuWrapper::CreateCpu() {
    return new (std::nothrow) CpuWrapperLinux();
}

CpuWrapperLinux::CpuWrapperLinux(const char* aStatPath)
    : m_coreCount(0),
      m_coreUsage(nullptr),
      m_totalUsage(0),
      m_lastBusyTicks(nullptr),
      m_lastUpdateMs(0),
      m_statPath(aStatPath ? aStatPath : "") {
    const int cores = ReadBusyTicks(m_statPath.c_str(), nullptr, 0);
    if (cores <= 0) return;
    unsigned long long* ticks = new (std::nothrow) unsigned long long[cores];
    unsigned int* usage = new (std::nothrow) unsigned int[cores]();
    // A core that came or went between the two reads fails the set-up too.
    if (!ticks || !usage || ReadBusyTicks(m_statPath.c_str(), ticks, cores) != cores) {
        delete[] ticks;
        delete[] usage;
        return;
    }
    m_coreCount = static_cast<unsigned int>(cores);
    m_coreUsage = usage;
    m_lastBusyTicks = ticks;
    m_lastUpdateMs = TickTime::MillisecondTimestamp();
}

CpuWrapperLinux::~CpuWrapperLinux() {
    delete[] m_coreUsage;
    delete[] m_lastBusyTicks;
}

int CpuWrapperLinux::CpuUsage() {
    unsigned int cores = 0;
    unsigned int* usage = nullptr;
    return CpuUsageMultiCore(cores, usage);
}

int CpuWrapperLinux::CpuUsage(char*, unsigned int) {
    return -1;
}

int CpuWrapperLinux::CpuUsage(unsigned int) {
    return -1;
}

int CpuWrapperLinux::CpuUsageMultiCore(unsigned int& aNumCores, unsigned int*& aCoreArray) {
    if (!m_coreUsage) return -1;
    const long long now = TickTime::MillisecondTimestamp();
    const long long elapsed = now - m_lastUpdateMs;
    if (elapsed >= kMinMeasuringIntervalMs) {
        if (Update(elapsed) != 0) return -1;
        m_lastUpdateMs = now;
    }
    aNumCores = m_coreCount;
    aCoreArray = m_coreUsage;
    return static_cast<int>(m_totalUsage / m_coreCount);
}

void CpuWrapperLinux::Reset() {}

void CpuWrapperLinux::Stop() {}

int CpuWrapperLinux::Update(long long aElapsedMs) {
    // The cores are read into a scratch array first, so a failed read
    // (or a changed core count) leaves the last figures as they were.
    unsigned long long* busy = new (std::nothrow) unsigned long long[m_coreCount];
    if (!busy) return -1;
    if (ReadBusyTicks(m_statPath.c_str(), busy, m_coreCount) != static_cast<int>(m_coreCount)) {
        delete[] busy;
        return -1;
    }
    m_totalUsage = 0;
    for (unsigned int i = 0; i < m_coreCount; ++i) {
        long long load = 0;
        if (aElapsedMs > 0) {
            load = (static_cast<long long>(busy[i] - m_lastBusyTicks[i]) * 1000) / aElapsedMs;
        }
        // Counters only grow; a negative figure would mean a reset source.
        m_coreUsage[i] = load > 0 ? static_cast<unsigned int>(load) : 0;
        m_lastBusyTicks[i] = busy[i];
        m_totalUsage += m_coreUsage[i];
    }
    delete[] busy;
    return 0;
}

int ComCpuInfo::_nums_cores = 0;
unsigned long ComCpuInfo::_max_frequency = 0;
unsigned long ComCpuInfo::_min_frequency = 0;
unsigned long ComCpuInfo::_ram_capability = 0;
COM_CPUHW_CATEGORY ComCpuInfo::_cpu_category = COM_CPUHW_CATEGORY_UNKNOWN;
COM_CPU_ARCHITECT ComCpuInfo::_cpu_arch = COM_CPU_ARCHITECT_UNKNOWN;

int ComCpuInfo::GetCpuCoreNums() {
    // Cached without a lock; concurrent first calls store the same value, and
    // the atomic accesses keep that free of a data race.
    const int cached = __atomic_load_n(&_nums_cores, __ATOMIC_RELAXED);
    if (cached != 0) return cached;
    const long available = sysconf(_SC_NPROCESSORS_ONLN);
    int cores = static_cast<int>(available);
    if (available <= 0) {
        SW_TRACE_ERROR("[CCPU]:" << "GetCpuCoreNums" << ", failed");
        cores = 1;
    }
    __atomic_store_n(&_nums_cores, cores, __ATOMIC_RELAXED);
    return cores;
}

int ComCpuInfo::GetCpuFrequences(unsigned long& aMax, unsigned long& aMin) {
    if (_max_frequency != 0 && _min_frequency != 0) {
        aMax = _max_frequency;
        aMin = _min_frequency;
    }
    return 0;
}

unsigned long ComCpuInfo::GetRawMemory() {
    return _ram_capability;
}

int ComCpuInfo::GetCpuCategory(COM_CPUHW_CATEGORY& aCategory, COM_CPU_ARCHITECT& aArch) {
    if (_cpu_arch != 0 && _cpu_category != 0) {
        aCategory = _cpu_category;
        aArch = _cpu_arch;
    }
    return 0;
}

}  // namespace webrtc

int (*WebRtc_GetCPUInfo)(webrtc::CPUFeature) = webrtc::GetCPUInfo;
int (*WebRtc_GetCPUInfoNoASM)(webrtc::CPUFeature) = webrtc::GetCPUInfoNoASM;
