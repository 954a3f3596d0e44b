// Pacing: the send path of a media engine. Streams tick every 10 ms on threads
// of their own; each tick builds a 1200-byte frame and hands it to one network
// thread. Meanwhile another thread posts small work to every stream thread
// each millisecond, as an engine's other threads do. The library (stream task
// threads with a ComTimerWrapper, a reactor thread on select or on epoll) and
// Asio (an io_context per stream with a steady_timer re-armed on its own
// expiry, a network io_context) do the same work in the same run.
//
// Two figures: how late each tick comes on its timer's grid, and the hand-off,
// from the start of a tick to its frame's event starting on the network thread.
#include <boost/asio.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "bench_support.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStreams = 8;
constexpr int64_t kPeriodUs = 10000;
constexpr int kTicksPerRound = 100;  // 1 s
constexpr int kFrames = kStreams * kTicksPerRound;
constexpr int kRounds = 12;
constexpr unsigned long kFrameBytes = 1200;
constexpr auto kChatterPeriod = std::chrono::milliseconds(1);
// A round that has not ended by then has lost frames or ticks.
constexpr auto kRoundTimeout = std::chrono::seconds(30);

enum PacingImpl { kImplLibSelect, kImplLibEpoll, kImplAsio, kPacingImpls };

const unsigned char* Payload() {
    static const std::array<unsigned char, kFrameBytes> kBytes = [] {
        std::array<unsigned char, kFrameBytes> bytes{};
        for (unsigned long i = 0; i < kFrameBytes; ++i) bytes[i] = static_cast<unsigned char>(i);
        return bytes;
    }();
    return kBytes.data();
}

double MicrosBetween(Clock::time_point aFrom, Clock::time_point aTo) {
    return std::chrono::duration<double, std::micro>(aTo - aFrom).count();
}

// What one side leaves behind in one round. Each stream's lateness is written
// by its own thread only, the hand-offs by the network thread only; all are
// read once those threads have been joined.
struct RoundSamples {
    RoundSamples() {
        for (auto& late : lateUs) late.reserve(kTicksPerRound);
        handoffUs.reserve(kFrames);
    }
    std::vector<double> lateUs[kStreams];
    std::vector<double> handoffUs;
};

// The network thread's side, shared by both: it reads every frame out and
// says when the round's last one has arrived.
class NetworkSink {
public:
    explicit NetworkSink(std::vector<double>& aHandoffUs) : m_handoffUs(aHandoffUs) {}

    unsigned char* Scratch() { return m_scratch.data(); }

    // On the network thread, after the frame was read into Scratch().
    void Took(Clock::time_point aTick, Clock::time_point aStart, unsigned long aLength) {
        m_handoffUs.push_back(MicrosBetween(aTick, aStart));
        m_ok = m_ok && aLength == kFrameBytes &&
               m_scratch[kFrameBytes - 1] == Payload()[kFrameBytes - 1];
        if (m_handoffUs.size() == static_cast<size_t>(kFrames)) m_done.Set();
    }

    bool WaitForAll() { return m_done.WaitFor(kRoundTimeout); }
    // Once the network thread has been joined.
    bool Ok() const { return m_ok; }

private:
    std::vector<double>& m_handoffUs;
    std::array<unsigned char, kFrameBytes> m_scratch{};
    bool m_ok = true;
    bench::Signal m_done;
};

// Posts small work to every stream thread each millisecond, on a grid that
// does not catch up in a burst when it falls behind.
class Chatter {
public:
    template <class PostToAll>
    explicit Chatter(PostToAll aPostToAll)
        : m_thread([this, aPostToAll] {
              Clock::time_point next = Clock::now();
              while (!m_stop.load(std::memory_order_relaxed)) {
                  next = std::max(next + kChatterPeriod, Clock::now());
                  std::this_thread::sleep_until(next);
                  m_ok = aPostToAll() && m_ok;
              }
          }) {}
    ~Chatter() { Stop(); }
    Chatter(const Chatter&) = delete;
    Chatter& operator=(const Chatter&) = delete;

    // True when every post was taken.
    bool Stop() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        return m_ok;
    }

private:
    std::atomic<bool> m_stop{false};
    bool m_ok = true;  // the chatter thread's, read after the join
    std::thread m_thread;
};

// ---------------------------------------------------------------------------
// The library

// A frame on its way to the network thread. The block is built in the event,
// so that the hand-off copies nothing.
class LibFrameEvent : public IEvent {
public:
    LibFrameEvent(NetworkSink& aSink, Clock::time_point aTick)
        : m_frame(kFrameBytes), m_sink(aSink), m_tick(aTick) {}

    int OnEventFire() override {
        const Clock::time_point start = Clock::now();
        const unsigned long length = m_frame.Read(m_sink.Scratch(), kFrameBytes, true);
        m_sink.Took(m_tick, start, length);
        return 0;
    }

    ComMessageBlock m_frame;

private:
    NetworkSink& m_sink;
    const Clock::time_point m_tick;
};

class LibStream : public ComTimerWrapperSink {
public:
    LibStream(IEventQueue* aNetwork, NetworkSink& aSink, std::vector<double>& aLateUs)
        : m_network(aNetwork), m_sink(aSink), m_lateUs(aLateUs) {}

    // On the stream's thread, where its timer belongs.
    void Start() {
        m_grid.Start(kPeriodUs);
        m_ok = m_timer.Schedule(this, ComTimeValueType(0, kPeriodUs), 0) == COM_OK;
    }
    void Cancel() { m_timer.Cancel(); }
    // Once the stream's thread has been joined.
    bool Ok() const { return m_ok && m_ticks == kTicksPerRound; }

    void OnTimer(ComTimerWrapper*) override {
        const Clock::time_point tick = Clock::now();
        m_lateUs.push_back(m_grid.Tick());
        LibFrameEvent* frame = new (std::nothrow) LibFrameEvent(m_sink, tick);
        m_ok = m_ok && frame != nullptr &&
               frame->m_frame.Write(Payload(), kFrameBytes, true) == kFrameBytes &&
               m_network->PostEvent(frame) == COM_OK;
        if (++m_ticks == kTicksPerRound) m_timer.Cancel();
    }

private:
    IEventQueue* const m_network;
    NetworkSink& m_sink;
    std::vector<double>& m_lateUs;
    bench::TimerGrid m_grid;
    ComTimerWrapper m_timer;
    int m_ticks = 0;
    bool m_ok = false;
};

bool LibRound(int aBackend, RoundSamples& aOut) {
    NetworkSink sink(aOut.handoffUs);
    std::vector<std::unique_ptr<LibStream>> streams;  // outlive their threads
    bool ok = true;
    {
        bench::LibThread<ComReactorThread> network;
        bench::LibThread<ComTaskThread> threads[kStreams];  // stopped before the network
        if (!bench::CreateReactorThread(aBackend, network)) return false;
        for (int i = 0; i < kStreams; ++i) {
            if (ComThreadManger::GetInstance()->CreateTaskThread(threads[i].out()) != COM_OK) {
                return false;
            }
            streams.emplace_back(new LibStream(network->GetEventQueue(), sink, aOut.lateUs[i]));
        }
        Chatter chatter([&threads] {
            bool posted = true;
            for (auto& thread : threads) {
                posted = thread->PostEvent(bench::MakeEvent([] {})) == COM_OK && posted;
            }
            return posted;
        });
        for (int i = 0; i < kStreams; ++i) {
            LibStream* stream = streams[i].get();
            IEvent* start = bench::MakeEvent([stream] { stream->Start(); });
            ok = threads[i]->PostEvent(start) == COM_OK && ok;
        }
        ok = ok && sink.WaitForAll();
        ok = chatter.Stop() && ok;
        // A timer still scheduled (after a failure) must go before its thread.
        for (int i = 0; i < kStreams; ++i) {
            LibStream* stream = streams[i].get();
            IEvent* cancel = bench::MakeEvent([stream] { stream->Cancel(); });
            ok = threads[i]->SendEvent(cancel) == COM_OK && ok;
        }
    }
    for (const auto& stream : streams) ok = ok && stream->Ok();
    return ok && sink.Ok();
}

// ---------------------------------------------------------------------------
// Asio

// An io_context run on a thread of its own until Stop.
class AsioThread {
public:
    AsioThread() : m_work(boost::asio::make_work_guard(m_io)), m_thread([this] { m_io.run(); }) {}
    ~AsioThread() { Stop(); }
    AsioThread(const AsioThread&) = delete;
    AsioThread& operator=(const AsioThread&) = delete;

    boost::asio::io_context& io() { return m_io; }
    void Stop() {
        m_work.reset();
        m_io.stop();
        if (m_thread.joinable()) m_thread.join();
    }

private:
    boost::asio::io_context m_io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work;
    std::thread m_thread;
};

class AsioStream {
public:
    AsioStream(boost::asio::io_context& aNetwork, NetworkSink& aSink, std::vector<double>& aLateUs)
        : m_network(aNetwork), m_sink(aSink), m_lateUs(aLateUs), m_timer(m_thread.io()) {}

    boost::asio::io_context& io() { return m_thread.io(); }
    // Armed on the stream's own thread, as the library's timer is.
    void Start() {
        boost::asio::post(m_thread.io(), [this] {
            m_timer.expires_after(std::chrono::microseconds(kPeriodUs));
            Arm();
        });
    }
    void Stop() { m_thread.Stop(); }
    // Once stopped.
    bool Ok() const { return m_ok && m_ticks == kTicksPerRound; }

private:
    void Arm() {
        m_timer.async_wait([this](const boost::system::error_code& aError) { OnTick(aError); });
    }

    void OnTick(const boost::system::error_code& aError) {
        const Clock::time_point tick = Clock::now();
        if (aError) {
            m_ok = false;
            return;
        }
        m_lateUs.push_back(MicrosBetween(m_timer.expiry(), tick));
        std::vector<unsigned char> frame(Payload(), Payload() + kFrameBytes);
        boost::asio::post(m_network, [&sink = m_sink, tick, frame = std::move(frame)] {
            const Clock::time_point start = Clock::now();
            std::memcpy(sink.Scratch(), frame.data(), frame.size());
            sink.Took(tick, start, frame.size());
        });
        if (++m_ticks == kTicksPerRound) return;
        m_timer.expires_at(m_timer.expiry() + std::chrono::microseconds(kPeriodUs));
        Arm();
    }

    boost::asio::io_context& m_network;
    NetworkSink& m_sink;
    std::vector<double>& m_lateUs;
    AsioThread m_thread;
    boost::asio::steady_timer m_timer;  // goes before the thread's io_context
    int m_ticks = 0;
    bool m_ok = true;
};

bool AsioRound(RoundSamples& aOut) {
    NetworkSink sink(aOut.handoffUs);
    AsioThread network;
    // A socket of its own, so that the network thread sleeps in epoll as a
    // network thread does, not on the scheduler's condition variable.
    boost::asio::ip::udp::socket socket(network.io());
    boost::system::error_code error;
    socket.open(boost::asio::ip::udp::v4(), error);
    if (error) return false;
    std::vector<std::unique_ptr<AsioStream>> streams;
    for (int i = 0; i < kStreams; ++i) {
        streams.emplace_back(new AsioStream(network.io(), sink, aOut.lateUs[i]));
    }
    Chatter chatter([&streams] {
        for (auto& stream : streams) boost::asio::post(stream->io(), [] {});
        return true;
    });
    for (auto& stream : streams) stream->Start();
    bool ok = sink.WaitForAll();
    ok = chatter.Stop() && ok;
    for (auto& stream : streams) {
        stream->Stop();
        ok = ok && stream->Ok();
    }
    network.Stop();
    return ok && sink.Ok();
}

// ---------------------------------------------------------------------------
// The rounds

// Per implementation: every sample of every round, and each round's 99th
// percentile. A stall of the machine spoils the tail of the one round it lands
// in, so the median round's p99 is reported beside the p99 of all samples.
struct PacingRun {
    std::vector<double> lateUs[kPacingImpls];
    std::vector<double> handoffUs[kPacingImpls];
    std::vector<double> lastUs[kPacingImpls];  // each stream's last tick of each round
    std::vector<double> roundLateP50Us[kPacingImpls];
    std::vector<double> roundLateP99Us[kPacingImpls];
    std::vector<double> roundHandoffP99Us[kPacingImpls];
    bool ok = true;
};

double P99(std::vector<double> aUs) {
    std::nth_element(aUs.begin(), aUs.begin() + aUs.size() * 99 / 100, aUs.end());
    return aUs[aUs.size() * 99 / 100];
}

// The median over rounds of aImpl's figure over Asio's in the same round: the
// rounds of one turn run seconds apart, so the machine's mood, which moves the
// figures of a whole run by several times, mostly cancels out.
double MedianRatioToAsio(const std::vector<double> (&aRounds)[kPacingImpls], int aImpl) {
    std::vector<double> ratios;
    for (size_t i = 0; i < aRounds[aImpl].size(); ++i) {
        ratios.push_back(aRounds[aImpl][i] / aRounds[kImplAsio][i]);
    }
    return bench::Median(std::move(ratios));
}

void Add(std::vector<double>& aAll, const std::vector<double>& aRound) {
    aAll.insert(aAll.end(), aRound.begin(), aRound.end());
}

// Wake-ups on a busy machine vary from minute to minute, so the three take
// turns, the one that goes first moving on every round; the one measurement
// is taken by whichever benchmark runs first and shared by all six.
const PacingRun& MeasurePacing() {
    static const PacingRun kRun = [] {
        PacingRun run;
        for (int round = 0; round < kRounds && run.ok; ++round) {
            for (int i = 0; i < kPacingImpls && run.ok; ++i) {
                const int impl = (round + i) % kPacingImpls;
                RoundSamples samples;
                if (impl == kImplAsio) {
                    run.ok = AsioRound(samples);
                } else {
                    run.ok = LibRound(impl == kImplLibEpoll ? ComNetReactor::BACKEND_EPOLL
                                                            : ComNetReactor::BACKEND_SELECT,
                                      samples);
                }
                if (!run.ok) break;
                std::vector<double> late;
                for (const auto& stream : samples.lateUs) {
                    Add(late, stream);
                    run.lastUs[impl].push_back(stream.back());
                }
                Add(run.lateUs[impl], late);
                Add(run.handoffUs[impl], samples.handoffUs);
                run.roundLateP50Us[impl].push_back(bench::Median(late));
                run.roundLateP99Us[impl].push_back(P99(std::move(late)));
                run.roundHandoffP99Us[impl].push_back(P99(std::move(samples.handoffUs)));
            }
        }
        return run;
    }();
    return kRun;
}

void PacingLateness(benchmark::State& aState, int aImpl) {
    const PacingRun& run = MeasurePacing();
    BENCH_REQUIRE(aState, run.ok);
    for (auto _ : aState) {
    }
    bench::ReportLateness(aState, run.lateUs[aImpl], bench::Median(run.lastUs[aImpl]));
    aState.counters["late_round_p99_us"] = bench::Median(run.roundLateP99Us[aImpl]);
    if (aImpl != kImplAsio) {
        aState.counters["p50_x_asio"] = MedianRatioToAsio(run.roundLateP50Us, aImpl);
        aState.counters["p99_x_asio"] = MedianRatioToAsio(run.roundLateP99Us, aImpl);
    }
}

void PacingHandoff(benchmark::State& aState, int aImpl) {
    const PacingRun& run = MeasurePacing();
    BENCH_REQUIRE(aState, run.ok);
    for (auto _ : aState) {
    }
    bench::ReportSpread(aState, "handoff", run.handoffUs[aImpl]);
    aState.counters["handoff_round_p99_us"] = bench::Median(run.roundHandoffP99Us[aImpl]);
    if (aImpl != kImplAsio) {
        aState.counters["p99_x_asio"] = MedianRatioToAsio(run.roundHandoffP99Us, aImpl);
    }
}

const bool kRegistered = [] {
    const std::pair<const char*, int> impls[] = {{bench::kLib, kImplLibSelect},
                                                 {bench::kLibEpoll, kImplLibEpoll},
                                                 {bench::kAsio, kImplAsio}};
    for (const auto& [impl, index] : impls) {
        benchmark::RegisterBenchmark(bench::Name("pacing_lateness", impl).c_str(), PacingLateness,
                                     index)
            ->Iterations(1);
    }
    for (const auto& [impl, index] : impls) {
        benchmark::RegisterBenchmark(bench::Name("pacing_handoff", impl).c_str(), PacingHandoff,
                                     index)
            ->Iterations(1);
    }
    return true;
}();

}  // namespace
