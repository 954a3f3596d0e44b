/// @file
/// What the engine may ask about the processor: the busy share of every core
/// between two calls (CpuWrapper), the core count and a few facts the host
/// stores (ComCpuInfo), and the processor-feature test (WebRtc_GetCPUInfo).
#ifndef SYSTEM_WRAPPERS_WEBRTC_CPU_H_
#define SYSTEM_WRAPPERS_WEBRTC_CPU_H_

#include <string>

#include "sw_export.h"

namespace webrtc {

/// A processor feature that GetCPUInfo can test. The fixed underlying type
/// lets callers ask for any feature number; unknown ones answer 0.
enum CPUFeature : int {
    kSSE2 = 0,  ///< SSE2 (x86 only).
    kSSE3 = 1,  ///< SSE3 (x86 only).
};

/// 1 when the processor has aFeature, else 0. Outside x86, and for a feature
/// number other than kSSE2 and kSSE3, the answer is 0. Any thread.
SW_EXPORT int GetCPUInfo(CPUFeature aFeature);
/// The feature test without processor instructions: always 0.
SW_EXPORT int GetCPUInfoNoASM(CPUFeature aFeature);

/// The hardware category that the host may store in ComCpuInfo::_cpu_category.
/// Value 0 means unknown; the library interprets no other value.
enum COM_CPUHW_CATEGORY : int {
    COM_CPUHW_CATEGORY_UNKNOWN = 0,  ///< Not known (nothing stored).
};
/// The processor architecture that the host may store in
/// ComCpuInfo::_cpu_arch. Value 0 means unknown; the library interprets no
/// other value.
enum COM_CPU_ARCHITECT : int {
    COM_CPU_ARCHITECT_UNKNOWN = 0,  ///< Not known (nothing stored).
};

/// Measures the busy share of each core between two measurements, in percent.
/// Not locked: one thread is expected to poll it.
class SW_EXPORT CpuWrapper {
public:
    /// A new load source for this host (a CpuWrapperLinux on the kernel's
    /// statistics file), or null when memory runs out. The caller owns it and
    /// frees it with delete.
    static CpuWrapper* CreateCpu();

    /// Deleting the object frees the per-core array that CpuUsageMultiCore
    /// handed out.
    virtual ~CpuWrapper() = default;
    /// The average load over all cores in percent, measured as
    /// CpuUsageMultiCore does, or -1 when no measurement is possible.
    virtual int CpuUsage() = 0;
    /// The load of a named process: unsupported, always -1.
    virtual int CpuUsage(char* aProcessName, unsigned int aLength) = 0;
    /// The load of a process by id: unsupported, always -1.
    virtual int CpuUsage(unsigned int aProcessId) = 0;
    /// The average load over all cores in percent, or -1 (the outputs then
    /// stay untouched). aNumCores receives the core count and aCoreArray the
    /// object's own per-core array: borrowed, valid while the object lives,
    /// and overwritten by the next measurement. Calls less than 500 ms after
    /// the last measurement return its figures unchanged.
    virtual int CpuUsageMultiCore(unsigned int& aNumCores, unsigned int*& aCoreArray) = 0;
    /// Does nothing.
    virtual void Reset() = 0;
    /// Does nothing.
    virtual void Stop() = 0;
};

/// Linux load source: the cpuN lines of the kernel's statistics file, busy
/// being user plus system ticks (100 per second). Not locked: one thread at a
/// time.
class SW_EXPORT CpuWrapperLinux : public CpuWrapper {
public:
    /// Takes the first measurement from the file aStatPath names. When it
    /// cannot be read (or lists no core) the object stays inert: every
    /// measurement answers -1. Nothing is traced.
    explicit CpuWrapperLinux(const char* aStatPath = "/proc/stat");
    /// Frees both arrays.
    ~CpuWrapperLinux() override;
    CpuWrapperLinux(const CpuWrapperLinux&) = delete;
    CpuWrapperLinux& operator=(const CpuWrapperLinux&) = delete;

    /// The average load, or -1; see CpuWrapper::CpuUsage.
    int CpuUsage() override;
    /// Unsupported: always -1.
    int CpuUsage(char* aProcessName, unsigned int aLength) override;
    /// Unsupported: always -1.
    int CpuUsage(unsigned int aProcessId) override;
    /// Measures when 500 ms or more have passed; -1 when the object is inert,
    /// or when the file cannot be read or now lists another number of cores
    /// (the last figures then stay). See CpuWrapper::CpuUsageMultiCore.
    int CpuUsageMultiCore(unsigned int& aNumCores, unsigned int*& aCoreArray) override;
    /// Does nothing.
    void Reset() override;
    /// Does nothing.
    void Stop() override;

    /// The number of cores the file listed; 0 when the object is inert.
    unsigned int m_coreCount;
    /// The last measured load of each core in percent (m_coreCount values);
    /// null when the object is inert. Handed out by CpuUsageMultiCore.
    unsigned int* m_coreUsage;
    /// The sum of the per-core loads of the last measurement.
    unsigned int m_totalUsage;
    /// Each core's busy tick count at the last measurement.
    unsigned long long* m_lastBusyTicks;
    /// The wall-clock time of the last measurement, in milliseconds
    /// (TickTime::MillisecondTimestamp).
    long long m_lastUpdateMs;
    /// The statistics file read at every measurement.
    std::string m_statPath;

private:
    int Update(long long aElapsedMs);
};

/// Static facts about the processor. Only _nums_cores is ever written by the
/// library; the others hold whatever the host stores in them (all start at
/// 0). The getters never fail.
class SW_EXPORT ComCpuInfo {
public:
    /// The number of online processors, looked up once and cached. When the
    /// lookup fails, traces "[CCPU]:GetCpuCoreNums, failed" (error) and
    /// answers 1. Any thread: concurrent first calls store the same value.
    static int GetCpuCoreNums();
    /// Copies _max_frequency and _min_frequency into aMax and aMin; both
    /// outputs stay untouched unless both are non-zero. Returns 0.
    static int GetCpuFrequences(unsigned long& aMax, unsigned long& aMin);
    /// _ram_capability, as the host stored it (0 when it stored nothing).
    static unsigned long GetRawMemory();
    /// Copies _cpu_category and _cpu_arch into aCategory and aArch; both
    /// outputs stay untouched unless both are non-zero. Returns 0.
    static int GetCpuCategory(COM_CPUHW_CATEGORY& aCategory, COM_CPU_ARCHITECT& aArch);

    /// The cached core count; 0 until GetCpuCoreNums first runs.
    static int _nums_cores;
    /// The maximum frequency, stored by the host; 0 when unknown.
    static unsigned long _max_frequency;
    /// The minimum frequency, stored by the host; 0 when unknown.
    static unsigned long _min_frequency;
    /// The memory size, stored by the host; 0 when unknown.
    static unsigned long _ram_capability;
    /// The hardware category, stored by the host; 0 when unknown.
    static COM_CPUHW_CATEGORY _cpu_category;
    /// The architecture, stored by the host; 0 when unknown.
    static COM_CPU_ARCHITECT _cpu_arch;
};

}  // namespace webrtc

/// Points at webrtc::GetCPUInfo: 1 when the processor has the feature, else 0.
extern SW_EXPORT int (*WebRtc_GetCPUInfo)(webrtc::CPUFeature);
/// Points at webrtc::GetCPUInfoNoASM, which answers 0 for every feature.
extern SW_EXPORT int (*WebRtc_GetCPUInfoNoASM)(webrtc::CPUFeature);

#endif  // SYSTEM_WRAPPERS_WEBRTC_CPU_H_
