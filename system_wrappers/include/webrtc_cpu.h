// What the engine may ask about the processor: the busy share of every core
// between two calls (CpuWrapper), the core count and a few facts the host
// stores (ComCpuInfo), and the processor-feature test (WebRtc_GetCPUInfo).
#ifndef SYSTEM_WRAPPERS_WEBRTC_CPU_H_
#define SYSTEM_WRAPPERS_WEBRTC_CPU_H_

#include <string>

#include "sw_export.h"

namespace webrtc {

// The fixed underlying type lets callers ask for any feature number; unknown
// ones answer 0.
enum CPUFeature : int {
    kSSE2 = 0,
    kSSE3 = 1,
};

// 1 when the feature is present, else 0. GetCPUInfoNoASM always answers 0.
SW_EXPORT int GetCPUInfo(CPUFeature aFeature);
SW_EXPORT int GetCPUInfoNoASM(CPUFeature aFeature);

// Value 0 means unknown; the library interprets no other value.
enum COM_CPUHW_CATEGORY : int {
    COM_CPUHW_CATEGORY_UNKNOWN = 0,
};
enum COM_CPU_ARCHITECT : int {
    COM_CPU_ARCHITECT_UNKNOWN = 0,
};

// Measures the busy share of each core between two measurements, in percent.
// Not locked: one thread is expected to poll it.
class SW_EXPORT CpuWrapper {
public:
    // The load source of this host; the caller owns the object.
    static CpuWrapper* CreateCpu();

    virtual ~CpuWrapper() = default;
    // The average load over all cores, or -1.
    virtual int CpuUsage() = 0;
    // Unsupported: -1.
    virtual int CpuUsage(char* aProcessName, unsigned int aLength) = 0;
    virtual int CpuUsage(unsigned int aProcessId) = 0;
    // The average load, or -1. aCoreArray receives the object's own array,
    // overwritten by the next measurement. Calls less than 500 ms after the
    // last measurement return its figures unchanged.
    virtual int CpuUsageMultiCore(unsigned int& aNumCores, unsigned int*& aCoreArray) = 0;
    virtual void Reset() = 0;
    virtual void Stop() = 0;
};

// Linux load source: the cpuN lines of the kernel's statistics file, busy
// being user plus system ticks (100 per second).
class SW_EXPORT CpuWrapperLinux : public CpuWrapper {
public:
    // aStatPath names the statistics file; when it cannot be read the object
    // stays inert and every measurement answers -1.
    explicit CpuWrapperLinux(const char* aStatPath = "/proc/stat");
    ~CpuWrapperLinux() override;
    CpuWrapperLinux(const CpuWrapperLinux&) = delete;
    CpuWrapperLinux& operator=(const CpuWrapperLinux&) = delete;

    int CpuUsage() override;
    int CpuUsage(char* aProcessName, unsigned int aLength) override;
    int CpuUsage(unsigned int aProcessId) override;
    int CpuUsageMultiCore(unsigned int& aNumCores, unsigned int*& aCoreArray) override;
    void Reset() override;
    void Stop() override;

    unsigned int m_coreCount;
    unsigned int* m_coreUsage;
    unsigned int m_totalUsage;
    unsigned long long* m_lastBusyTicks;
    long long m_lastUpdateMs;
    std::string m_statPath;

private:
    int Update(long long aElapsedMs);
};

// Static facts about the processor. Only _nums_cores is ever written by the
// library; the others hold whatever the host stores in them.
class SW_EXPORT ComCpuInfo {
public:
    // Looked up once and cached; 1 (with an error line) when the lookup fails.
    static int GetCpuCoreNums();
    // Both outputs stay untouched unless both frequencies are known. Returns 0.
    static int GetCpuFrequences(unsigned long& aMax, unsigned long& aMin);
    static unsigned long GetRawMemory();
    // Both outputs stay untouched unless both facts are known. Returns 0.
    static int GetCpuCategory(COM_CPUHW_CATEGORY& aCategory, COM_CPU_ARCHITECT& aArch);

    static int _nums_cores;
    static unsigned long _max_frequency;
    static unsigned long _min_frequency;
    static unsigned long _ram_capability;
    static COM_CPUHW_CATEGORY _cpu_category;
    static COM_CPU_ARCHITECT _cpu_arch;
};

}  // namespace webrtc

extern SW_EXPORT int (*WebRtc_GetCPUInfo)(webrtc::CPUFeature);
extern SW_EXPORT int (*WebRtc_GetCPUInfoNoASM)(webrtc::CPUFeature);

#endif  // SYSTEM_WRAPPERS_WEBRTC_CPU_H_
