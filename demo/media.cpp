#include "media.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "demo_support.h"
#include "system_wrappers.h"

namespace demo {

namespace {

int64_t WallMicros(const ComTimeValueType& aTime) {
    return static_cast<int64_t>(aTime.GetSec()) * 1000000 + aTime.GetUsec();
}

int64_t SteadyNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

// The start of every frame, in host byte order (sender and receiver are one
// process); a pattern that depends on stream and sequence number follows.
struct FrameHeader {
    uint32_t length;  // of the whole frame, header included
    uint32_t stream;
    uint64_t seq;
    int64_t tickNs;  // steady clock when the tick that built it ran
};
static_assert(sizeof(FrameHeader) == kFrameHeaderBytes, "the header is what --frame allows for");

// What the threads of a media run share. A histogram belongs to one thread
// (or its mutex) until every thread is gone.
struct MediaRun {
    explicit MediaRun(const Options& aOptions) : options(aOptions) {}

    // Keeps the first fault for the summary and traces it.
    void Fail(const std::string& aWhat) {
        std::lock_guard<std::mutex> lock(failMutex);
        if (!firstFailure.empty()) return;
        firstFailure = aWhat;
        DEMO_LOG(MTRACE_LEVEL_ERROR, "[DEMO]:media, " << aWhat.c_str());
    }
    std::string FirstFailure() {
        std::lock_guard<std::mutex> lock(failMutex);
        return firstFailure;
    }

    const Options& options;
    std::atomic<uint64_t> sent{0};        // frames built on ticks, every stream
    std::atomic<uint64_t> received{0};    // distinct intact frames
    std::atomic<uint64_t> missed{0};      // periods skipped by late timers
    std::atomic<int64_t> worstLateNs{0};  // since the last progress line
    std::mutex latenessMutex;
    Histogram lateness;  // every stream's ticks, under latenessMutex
    Histogram wire;      // the sender thread's
    Histogram arrival;   // the receiver thread's

private:
    std::mutex failMutex;
    std::string firstFailure;
};

// ---------------------------------------------------------------------------
// Sending

// One stream's socket on the sender reactor thread. Frames wait in order
// while the socket has no room; everything runs on that thread.
class StreamSender : public ComReactorBase {
public:
    StreamSender(MediaRun& aRun, ComReactorThread* aThread, uint32_t aId)
        : m_run(aRun), m_thread(aThread), m_id(aId) {}
    ~StreamSender() override { m_socket.close(); }

    // A datagram socket aimed at aDest, or a connection to it over tcp.
    int Open(const sockaddr_in& aDest) {
        m_dest = aDest;
        int rv = 0;
        if (m_run.options.tcp) {
            rv = m_socket.open(nullptr, SOCK_STREAM) == 0 ? m_socket.connect(&aDest) : -1;
            if (rv == 0) NoDelay(m_socket.get_socket());
        } else {
            sockaddr_in local;
            ComSocketBase::addr_transfer("127.0.0.1", 0, local);
            rv = m_socket.open(&local, SOCK_DGRAM);
        }
        if (rv != 0 || m_socket.enable_nonblock() != 0) {
            m_run.Fail("stream " + std::to_string(m_id) + ": cannot open its sending socket");
            return COM_ERROR_FAILURE;
        }
        return COM_OK;
    }

    void Send(const ComMessageBlock& aFrame, int64_t aTickNs) {
        m_pending.push_back(Pending{aFrame, aTickNs, false});
        Flush();
    }

    ComReactorThread* Thread() const { return m_thread; }
    int on_input() override { return 0; }
    int on_output() override {
        Flush();
        return 0;
    }
    int on_close() override { return m_socket.close(); }
    int get_handle() override { return m_socket.get_socket(); }

private:
    struct Pending {
        ComMessageBlock frame;
        int64_t tickNs;
        bool started;  // its tick-to-wire time is counted
    };

    // Sends what the socket takes now, in order, and asks to be called when
    // it has room for the rest. Readiness is checked first because the
    // library traces a send that would block as a failure.
    void Flush() {
        while (!m_pending.empty() && !m_broken && Writable(m_socket.get_socket())) {
            Pending& next = m_pending.front();
            if (!next.started) {
                m_run.wire.Add(static_cast<uint64_t>(SteadyNanos() - next.tickNs));
                next.started = true;
            }
            const char* data = reinterpret_cast<const char*>(next.frame.m_pRead);
            const unsigned long left = next.frame.GetReadableLength();
            const int sent = m_run.options.tcp ? m_socket.send(data, static_cast<int>(left))
                                               : m_socket.send_to(data, left, &m_dest);
            if (sent <= 0 && m_socket.m_error == EAGAIN) break;  // room came and went
            if (sent <= 0 || (!m_run.options.tcp && static_cast<unsigned long>(sent) != left)) {
                m_broken = true;
                m_run.Fail("stream " + std::to_string(m_id) +
                           ": send failed, err=" + std::to_string(m_socket.m_error));
                break;
            }
            next.frame.Read(nullptr, static_cast<unsigned long>(sent), true);
            if (next.frame.GetReadableLength() == 0) m_pending.pop_front();
        }
        const long mask = m_pending.empty() || m_broken ? 0 : ComReactorBase::WRITE_MASK;
        if (mask != m_mask) {
            m_mask = mask;
            m_thread->RegisterHandle(this, mask);
        }
    }

    MediaRun& m_run;
    ComReactorThread* const m_thread;
    const uint32_t m_id;
    ComSocketBase m_socket;
    sockaddr_in m_dest{};
    std::deque<Pending> m_pending;
    long m_mask = 0;
    bool m_broken = false;
};

// Carries a built frame to the sender thread.
class SendFrameEvent : public IEvent {
public:
    SendFrameEvent(StreamSender& aSender, const ComMessageBlock& aFrame, int64_t aTickNs)
        : m_sender(aSender), m_frame(aFrame), m_tickNs(aTickNs) {}
    int OnEventFire() override {
        m_sender.Send(m_frame, m_tickNs);
        return COM_OK;
    }

private:
    StreamSender& m_sender;
    ComMessageBlock m_frame;
    int64_t m_tickNs;
};

// One stream: a periodic timer on the stream's own task thread builds a frame
// on every tick and posts it to the sender. It runs on that thread; main reads
// its numbers once the thread is gone.
class Stream : public ComTimerWrapperSink {
public:
    Stream(MediaRun& aRun, uint32_t aId, StreamSender& aSender)
        : id(aId),
          m_run(aRun),
          m_sender(aSender),
          m_periodUs(static_cast<int64_t>(aRun.options.period) * 1000) {}

    // On the stream's thread.
    int Start() {
        const ComTimeValueType period(static_cast<long>(m_periodUs / 1000000),
                                      static_cast<long>(m_periodUs % 1000000));
        if (m_timer.Schedule(this, period, 0) != COM_OK) return COM_ERROR_FAILURE;
        // The thread runs this timer only, so its queue's earliest due time
        // is this timer's: the first point of the grid it keeps.
        m_firstDueUs = m_dueUs = WallMicros(thread->m_pTimerQueue.load()->GetEarliestTime());
        return COM_OK;
    }
    int Stop() { return m_timer.Cancel(); }

    // Measures how late this tick is against its due time and what the
    // timer re-armed itself for, then builds and posts the frame.
    void OnTimer(ComTimerWrapper*) override {
        const int64_t nowUs = WallMicros(ComTimeValueType::GetTimeOfDay());
        const int64_t tickNs = SteadyNanos();
        const int64_t lateNs = std::max<int64_t>(0, nowUs - m_dueUs) * 1000;
        const int64_t nextUs = WallMicros(thread->m_pTimerQueue.load()->GetEarliestTime());
        if (nextUs <= m_dueUs || (nextUs - m_firstDueUs) % m_periodUs != 0) {
            ++offGrid;
        } else if (nextUs - m_dueUs > m_periodUs) {
            const uint64_t skipped = static_cast<uint64_t>((nextUs - m_dueUs) / m_periodUs - 1);
            missed += skipped;
            m_run.missed += skipped;
        }
        lastSlot = (m_dueUs - m_firstDueUs) / m_periodUs;
        lastLateUs = lateNs / 1000;
        m_dueUs = nextUs;
        {
            std::lock_guard<std::mutex> lock(m_run.latenessMutex);
            m_run.lateness.Add(static_cast<uint64_t>(lateNs));
        }
        int64_t worst = m_run.worstLateNs.load(std::memory_order_relaxed);
        while (lateNs > worst && !m_run.worstLateNs.compare_exchange_weak(worst, lateNs)) {
        }
        Post(tickNs);
    }

    ComTaskThread* thread = nullptr;
    const uint32_t id;
    uint64_t seq = 0;  // frames built
    uint64_t missed = 0;
    uint64_t offGrid = 0;  // due times that left the first one's grid
    int64_t lastSlot = 0;  // the last tick's slot, in periods after the first due time
    int64_t lastLateUs = 0;

private:
    void Post(int64_t aTickNs) {
        const unsigned long size = m_run.options.frame;
        ComMessageBlock frame(size);
        if (frame.GetWritableCapacity() != size) {
            m_run.Fail("out of memory for a frame");
            return;
        }
        const FrameHeader header = {static_cast<uint32_t>(size), id, seq, aTickNs};
        memcpy(frame.m_pWrite, &header, sizeof(header));
        for (unsigned long i = kFrameHeaderBytes; i < size; ++i)
            frame.m_pWrite[i] = PatternByte(id, seq, i);
        frame.Write(nullptr, size, true);
        ++seq;
        ++m_run.sent;  // before the post, so a receiver never sees a sequence number beyond it
        m_sender.Thread()->GetEventQueue()->PostEvent(new SendFrameEvent(m_sender, frame, aTickNs));
    }

    MediaRun& m_run;
    StreamSender& m_sender;
    const int64_t m_periodUs;
    int64_t m_firstDueUs = 0;
    int64_t m_dueUs = 0;  // of the coming tick
    ComTimerWrapper m_timer;
};

// ---------------------------------------------------------------------------
// Receiving

// Which frames of one stream arrived: once, in order.
struct StreamBook {
    uint64_t next = 0;        // one past the highest sequence number seen
    std::set<uint64_t> gaps;  // below next, not seen yet
    uint64_t received = 0;    // distinct frames
    uint64_t duplicated = 0;
    uint64_t reordered = 0;
};

// Everything on the receiver reactor thread: the sockets, the check of every
// frame and the books it keeps. Main reads the books once the thread is gone.
class Receiver {
public:
    Receiver(MediaRun& aRun, ComReactorThread* aThread)
        : books(aRun.options.streams),
          m_run(aRun),
          m_thread(aThread),
          m_scratch(kMaxUdpFrame + 1) {}

    // On the receiver thread: a datagram socket per stream or a listener.
    int Open();

    // Checks a frame that arrived for stream aStream (-1: any stream) and
    // books it. The stream it belonged to, or -1 when it was corrupt.
    int Check(const unsigned char* aData, unsigned long aLength, int aStream);
    void Corrupt(const std::string& aWhat) {
        ++corrupt;
        m_run.Fail(aWhat);
    }
    void Adopt(ComReactorBase* aHandle) { m_handles.emplace_back(aHandle); }

    MediaRun& Run() { return m_run; }
    ComReactorThread* Thread() { return m_thread; }
    std::vector<unsigned char>& Scratch() { return m_scratch; }

    std::vector<StreamBook> books;
    uint64_t corrupt = 0;
    std::vector<sockaddr_in> addresses;  // where stream i sends (one, the listener, over tcp)
    std::atomic<unsigned long> accepted{0};
    unsigned long long bufferAsked = 0;  // kernel bytes a socket, 0 over tcp
    unsigned long long bufferGiven = 0;

private:
    int OpenUdp(uint32_t aId);
    int OpenListener();

    MediaRun& m_run;
    ComReactorThread* m_thread;
    std::vector<unsigned char> m_scratch;  // one datagram at a time
    std::vector<std::unique_ptr<ComReactorBase>> m_handles;
};

// Stream aId's datagram socket: one datagram per call, so the library never
// traces a receive that would block; the reactor calls again while more wait.
class UdpReceiver : public ComReactorBase {
public:
    UdpReceiver(Receiver& aReceiver, uint32_t aId) : m_receiver(aReceiver), m_id(aId) {}
    ~UdpReceiver() override { m_socket.close(); }

    int on_input() override {
        std::vector<unsigned char>& buffer = m_receiver.Scratch();
        const int n =
            m_socket.recv_from(reinterpret_cast<char*>(buffer.data()), buffer.size(), nullptr);
        if (n > 0 || m_socket.m_error == 0) {  // an empty datagram is a corrupt frame
            m_receiver.Check(buffer.data(), static_cast<unsigned long>(n), static_cast<int>(m_id));
        } else if (m_socket.m_error != EAGAIN && m_socket.m_error != EINTR) {
            m_receiver.Run().Fail("stream " + std::to_string(m_id) +
                                  ": receive failed, err=" + std::to_string(m_socket.m_error));
            m_receiver.Thread()->UnRegisterHandle(this);
        }
        return 0;
    }
    int on_output() override { return 0; }
    int on_close() override { return m_socket.close(); }
    int get_handle() override { return m_socket.get_socket(); }

    ComSocketBase m_socket;

private:
    Receiver& m_receiver;
    const uint32_t m_id;
};

// One accepted connection: reads a header, then the rest of the frame its
// length gives, and checks it. Which stream it carries, its first frame says.
class TcpReceiver : public ComReactorBase {
public:
    TcpReceiver(Receiver& aReceiver, int aFd)
        : m_receiver(aReceiver), m_frame(aReceiver.Run().options.frame) {
        m_socket.assign(aFd);
        m_socket.enable_nonblock();
    }
    ~TcpReceiver() override { m_socket.close(); }

    int on_input() override {
        if (m_socket.get_socket() == COM_INVALID_SOCKET) return 0;
        const unsigned long want = m_length ? m_length : kFrameHeaderBytes;
        const int n = m_socket.recv(reinterpret_cast<char*>(m_frame.data() + m_have),
                                    static_cast<int>(want - m_have));
        if (n <= 0) {
            // The end comes when the sender shuts down; a real fault is one.
            if (m_socket.m_error == EAGAIN || m_socket.m_error == EINTR) return 0;
            if (m_socket.m_error != 0) m_receiver.Run().Fail("a connection's receive failed");
            Close();
            return 0;
        }
        m_have += static_cast<unsigned long>(n);
        if (m_length == 0 && m_have == kFrameHeaderBytes) {
            FrameHeader header;
            memcpy(&header, m_frame.data(), sizeof(header));
            if (header.length != m_frame.size()) {
                // The byte stream is out of step: nothing after this can be read.
                m_receiver.Corrupt("a frame header on stream " + std::to_string(m_stream) +
                                   " gives a length of " + std::to_string(header.length));
                Close();
                return 0;
            }
            m_length = header.length;
        }
        if (m_length != 0 && m_have == m_length) {
            const int stream = m_receiver.Check(m_frame.data(), m_length, m_stream);
            if (m_stream < 0) m_stream = stream;
            m_have = 0;
            m_length = 0;
        }
        return 0;
    }
    int on_output() override { return 0; }
    int on_close() override { return m_socket.close(); }
    int get_handle() override { return m_socket.get_socket(); }

private:
    void Close() {
        m_receiver.Thread()->UnRegisterHandle(this);
        m_socket.close();
    }

    Receiver& m_receiver;
    ComSocketBase m_socket;
    std::vector<unsigned char> m_frame;
    unsigned long m_have = 0;
    unsigned long m_length = 0;  // of the frame being read, once its header is in
    int m_stream = -1;
};

// Accepts every connection that waits (readiness first: the library traces
// an accept that would block as a failure).
class TcpListener : public ComReactorBase {
public:
    explicit TcpListener(Receiver& aReceiver) : m_receiver(aReceiver) {}
    ~TcpListener() override { m_server.close(); }

    int on_input() override {
        while (Readable(m_server.get_socket())) {
            const int fd = m_server.accept();
            if (fd == -1) return 0;  // traced by the socket
            TcpReceiver* connection = new TcpReceiver(m_receiver, fd);
            m_receiver.Adopt(connection);
            m_receiver.Thread()->RegisterHandle(connection, ComReactorBase::READ_MASK);
            ++m_receiver.accepted;
        }
        return 0;
    }
    int on_output() override { return 0; }
    int on_close() override { return m_server.close(); }
    int get_handle() override { return m_server.get_socket(); }

    ComTcpServer m_server;

private:
    Receiver& m_receiver;
};

int Receiver::Open() {
    if (m_run.options.tcp) return OpenListener();
    // Room for half a second of a stream's frames, so that a receiver held up
    // that long loses none. The kernel charges a datagram more than its bytes
    // (about 2.3 KiB for 1200 on loopback): twice the bytes plus 2 KiB covers
    // every size. The defaults fit the system's usual limit.
    const unsigned long long perHalfSecond =
        (500 + m_run.options.period - 1) / m_run.options.period;
    bufferAsked = perHalfSecond * (2ull * m_run.options.frame + 2048);
    bufferGiven = ULLONG_MAX;
    for (uint32_t id = 0; id < m_run.options.streams; ++id) {
        if (OpenUdp(id) != COM_OK) return COM_ERROR_FAILURE;
    }
    return COM_OK;
}

int Receiver::OpenUdp(uint32_t aId) {
    UdpReceiver* handle = new UdpReceiver(*this, aId);
    Adopt(handle);
    ComSocketBase& socket = handle->m_socket;
    sockaddr_in local;
    ComSocketBase::addr_transfer("127.0.0.1", 0, local);
    if (socket.open(&local, SOCK_DGRAM) != 0 || socket.enable_nonblock() != 0 ||
        socket.get_local_addr(local) != 0) {
        m_run.Fail("stream " + std::to_string(aId) + ": cannot open its receiving socket");
        return COM_ERROR_FAILURE;
    }
    addresses.push_back(local);
    // The kernel doubles what it is asked for (the other half is its own
    // bookkeeping) and reports the doubled size; a smaller ask than the
    // default would shrink the buffer.
    const int fd = socket.get_socket();
    int size = 0;
    socklen_t length = sizeof(size);
    getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length);
    if (static_cast<unsigned long long>(size) < bufferAsked) {
        const int ask = static_cast<int>(std::min<unsigned long long>(bufferAsked / 2, INT_MAX));
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &ask, sizeof(ask));
        length = sizeof(size);
        getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length);
    }
    bufferGiven = std::min<unsigned long long>(bufferGiven, static_cast<unsigned long long>(size));
    return m_thread->RegisterHandle(handle, ComReactorBase::READ_MASK) == 0 ? COM_OK
                                                                            : COM_ERROR_FAILURE;
}

int Receiver::OpenListener() {
    TcpListener* listener = new TcpListener(*this);
    Adopt(listener);
    ComTcpServer& server = listener->m_server;
    sockaddr_in local;
    // The socket's own backlog of 5 would drop most of the streams' connects.
    if (server.open("127.0.0.1", 0) != 0 || listen(server.get_socket(), SOMAXCONN) != 0 ||
        server.get_local_addr(local) != 0 || server.enable_nonblock() != 0 ||
        m_thread->RegisterHandle(listener, ComReactorBase::READ_MASK) != 0) {
        m_run.Fail("cannot listen on 127.0.0.1");
        return COM_ERROR_FAILURE;
    }
    addresses.push_back(local);
    return COM_OK;
}

int Receiver::Check(const unsigned char* aData, unsigned long aLength, int aStream) {
    auto where = [aStream] {
        return aStream >= 0 ? "stream " + std::to_string(aStream) : std::string("a connection");
    };
    FrameHeader h = {};
    if (aLength >= kFrameHeaderBytes) memcpy(&h, aData, sizeof(h));
    if (aLength != m_run.options.frame || h.length != aLength) {
        Corrupt(where() + ": a frame of " + std::to_string(aLength) + " bytes says " +
                std::to_string(h.length));
        return -1;
    }
    if (h.stream >= books.size() || (aStream >= 0 && h.stream != static_cast<uint32_t>(aStream))) {
        Corrupt(where() + ": a frame of stream " + std::to_string(h.stream));
        return -1;
    }
    // No stream has built that many frames: the number is garbage, and
    // booking it would mark every number below it as a gap.
    if (h.seq >= m_run.sent.load()) {
        Corrupt(where() + ": frame " + std::to_string(h.seq) + " was never sent");
        return -1;
    }
    for (unsigned long i = kFrameHeaderBytes; i < aLength; ++i) {
        if (aData[i] != PatternByte(h.stream, h.seq, i)) {
            Corrupt(where() + ": frame " + std::to_string(h.seq) + ", byte " + std::to_string(i) +
                    " differs");
            return -1;
        }
    }
    m_run.arrival.Add(static_cast<uint64_t>(std::max<int64_t>(0, SteadyNanos() - h.tickNs)));
    StreamBook& book = books[h.stream];
    if (h.seq >= book.next) {
        for (uint64_t missing = book.next; missing < h.seq; ++missing) book.gaps.insert(missing);
        book.next = h.seq + 1;
    } else if (book.gaps.erase(h.seq) == 1) {
        ++book.reordered;
    } else {
        ++book.duplicated;
        return static_cast<int>(h.stream);
    }
    ++book.received;
    ++m_run.received;
    return static_cast<int>(h.stream);
}

// ---------------------------------------------------------------------------
// The run

// One slice of an encoder's work: arithmetic on state of its own, so that a
// load thread keeps a processor busy and returns to its loop often enough to
// see a stop at once.
bool BusySlice(void* aState) {
    uint32_t* state = static_cast<uint32_t*>(aState);
    uint32_t x = *state;
    for (int i = 0; i < 200000; ++i) x = x * 1664525u + 1013904223u;
    *state = x;
    return true;
}

class MediaEngine {
public:
    MediaEngine(const Options& aOptions, const std::string& aNote)
        : m_options(aOptions),
          m_note(aNote),
          m_seconds(aOptions.duration > 0 ? aOptions.duration : kDefaultMediaSeconds),
          m_run(aOptions) {}

    bool Setup();
    // Streams for the duration; the signal that cut it short, or 0.
    int Play();
    // Stops the timers, then waits for frames still on the way.
    void Stop();
    // Destroys every thread; false when one did not shut down cleanly.
    bool Teardown();
    // Prints the summary; the exit code.
    int Summary(const std::string& aProblem);

private:
    void PrintLateness(const Histogram& aLateness);

    const Options& m_options;
    const std::string& m_note;
    const double m_seconds;
    MediaRun m_run;
    ComReactorThread* m_senderThread = nullptr;
    ComReactorThread* m_receiverThread = nullptr;
    std::unique_ptr<Receiver> m_receiver;
    std::vector<std::unique_ptr<StreamSender>> m_senders;
    std::vector<std::unique_ptr<Stream>> m_streams;
    std::vector<ComUserThread*> m_load;
    std::vector<uint32_t> m_loadState;  // one per load thread, its own
    unsigned long m_started = 0;        // streams whose timer was scheduled
    double m_elapsed = 0;               // from the first timer to the last cancel
};

bool MediaEngine::Setup() {
    ComThreadManger* manager = ComThreadManger::GetInstance();
    if (manager->CreateReactorThread(m_receiverThread) != COM_OK ||
        manager->CreateReactorThread(m_senderThread) != COM_OK) {
        fprintf(stderr, "sw_demo: cannot start the media reactor threads\n");
        return false;
    }
    m_receiver = std::make_unique<Receiver>(m_run, m_receiverThread);
    Receiver* receiver = m_receiver.get();
    if (RunOn(m_receiverThread->GetEventQueue(), [receiver] { return receiver->Open(); }) !=
        COM_OK) {
        fprintf(stderr, "sw_demo: %s\n", m_run.FirstFailure().c_str());
        return false;
    }
    for (uint32_t id = 0; id < m_options.streams; ++id) {
        StreamSender* sender = new StreamSender(m_run, m_senderThread, id);
        m_senders.emplace_back(sender);
        const sockaddr_in dest = receiver->addresses[m_options.tcp ? 0 : id];
        if (RunOn(m_senderThread->GetEventQueue(), [sender, dest] { return sender->Open(dest); }) !=
            COM_OK) {
            fprintf(stderr, "sw_demo: %s\n", m_run.FirstFailure().c_str());
            return false;
        }
    }
    // Every connection is accepted before the first frame, so that no
    // stream's first frames wait for the listener.
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(30);
    while (m_options.tcp && receiver->accepted.load() < m_options.streams && Clock::now() < limit) {
        WaitForSignal(10);
    }
    if (m_options.tcp && receiver->accepted.load() < m_options.streams) {
        fprintf(stderr, "sw_demo: only %lu of %lu connections were accepted\n",
                receiver->accepted.load(), m_options.streams);
        return false;
    }
    m_loadState.assign(m_options.load, 1);
    for (unsigned long i = 0; i < m_options.load; ++i) {
        ComUserThread* thread = nullptr;
        if (manager->CreateUserThread(BusySlice, &m_loadState[i], thread) != COM_OK) {
            fprintf(stderr, "sw_demo: cannot start a load thread\n");
            return false;
        }
        m_load.push_back(thread);
    }
    for (uint32_t id = 0; id < m_options.streams; ++id) {
        m_streams.emplace_back(new Stream(m_run, id, *m_senders[id]));
        if (manager->CreateTaskThread(m_streams.back()->thread) != COM_OK) {
            fprintf(stderr, "sw_demo: cannot start the thread of stream %u\n", id);
            return false;
        }
    }
    return true;
}

int MediaEngine::Play() {
    printf(
        "sw_demo: media, %lu streams x %lu-byte frames every %lu ms over %s on 127.0.0.1; %s; "
        "%lu load thread%s; %g s\n",
        m_options.streams, m_options.frame, m_options.period, m_options.tcp ? "tcp" : "udp",
        m_note.c_str(), m_options.load, m_options.load == 1 ? "" : "s", m_seconds);
    fflush(stdout);
    const Clock::time_point start = Clock::now();
    const auto period = std::chrono::milliseconds(m_options.period);
    for (std::unique_ptr<Stream>& stream : m_streams) {
        Stream* s = stream.get();
        // Streams that start independently tick at moments spread over the
        // period; started together, every tick of every stream would land on
        // one instant.
        std::this_thread::sleep_until(start + period * s->id / m_options.streams);
        if (RunOn(s->thread->GetEventQueue(), [s] { return s->Start(); }) != COM_OK) {
            m_run.Fail("cannot schedule the timer of stream " + std::to_string(s->id));
            return 0;
        }
        ++m_started;
    }
    const Clock::time_point end = start + std::chrono::duration_cast<Clock::duration>(
                                              std::chrono::duration<double>(m_seconds));
    Clock::time_point nextLine = start + std::chrono::seconds(1);
    int signal = 0;
    for (Clock::time_point now = start; signal == 0 && now < end; now = Clock::now()) {
        const auto wait = std::min(end, nextLine) - now;
        signal = WaitForSignal(
            std::max<long>(1, std::chrono::duration_cast<std::chrono::milliseconds>(wait).count()));
        if (Clock::now() < nextLine) continue;
        nextLine += std::chrono::seconds(1);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        printf(
            "progress: %.0f s, %llu frames sent, %llu received, %llu missed periods, "
            "worst lateness %.0f us\n",
            seconds, static_cast<unsigned long long>(m_run.sent.load()),
            static_cast<unsigned long long>(m_run.received.load()),
            static_cast<unsigned long long>(m_run.missed.load()),
            static_cast<double>(m_run.worstLateNs.exchange(0)) / 1000.0);
        fflush(stdout);
    }
    m_elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    return signal;
}

void MediaEngine::Stop() {
    // Cancelled on their own threads: after this, no stream posts a frame.
    for (unsigned long i = 0; i < m_started; ++i) {
        Stream* s = m_streams[i].get();
        RunOn(s->thread->GetEventQueue(), [s] { return s->Stop(); });
    }
    // Frames still queued or in flight arrive within moments; one that has not
    // come after two quiet seconds is lost.
    uint64_t last = m_run.received.load();
    Clock::time_point quietSince = Clock::now();
    while (m_started > 0 && m_run.received.load() < m_run.sent.load() &&
           Clock::now() - quietSince < std::chrono::seconds(2)) {
        if (WaitForSignal(10) != 0) break;
        const uint64_t now = m_run.received.load();
        if (now != last) {
            last = now;
            quietSince = Clock::now();
        }
    }
}

bool MediaEngine::Teardown() {
    ComThreadManger* manager = ComThreadManger::GetInstance();
    bool clean = true;
    for (ComUserThread* thread : m_load) clean = manager->DestroyThread(thread) == COM_OK && clean;
    for (std::unique_ptr<Stream>& stream : m_streams) {
        if (stream->thread) clean = manager->DestroyThread(stream->thread) == COM_OK && clean;
        stream->thread = nullptr;
    }
    // The sender goes first, so the receiver sees its connections end.
    for (ComReactorThread** thread : {&m_senderThread, &m_receiverThread}) {
        if (*thread) clean = manager->DestroyThread(*thread) == COM_OK && clean;
        *thread = nullptr;
    }
    return clean;
}

void MediaEngine::PrintLateness(const Histogram& aLateness) {
    struct Row {
        const char* label;
        uint64_t below;  // microseconds; 0: the rest
    };
    const Row rows[] = {{"< 50 us", 50},  {"< 100 us", 100}, {"< 200 us", 200}, {"< 500 us", 500},
                        {"< 1 ms", 1000}, {"< 2 ms", 2000},  {"< 5 ms", 5000},  {">= 5 ms", 0}};
    uint64_t counts[8];
    uint64_t below = 0;
    uint64_t most = 0;
    for (size_t i = 0; i < 8; ++i) {
        const uint64_t upTo =
            rows[i].below ? aLateness.CountBelow(rows[i].below) : aLateness.Total();
        counts[i] = upTo - below;
        below = upTo;
        most = std::max(most, counts[i]);
    }
    printf("  lateness        ticks by how late their timer fired (bar: log of the count)\n");
    for (size_t i = 0; i < 8; ++i) {
        // Log-scaled, so that a handful of late ticks still shows.
        const int bar =
            counts[i] == 0
                ? 0
                : std::max(1, static_cast<int>(std::lround(40 * std::log(1.0 + counts[i]) /
                                                           std::log(1.0 + most))));
        printf("    %-9s %10llu %7.3f%%  %s\n", rows[i].label,
               static_cast<unsigned long long>(counts[i]),
               100.0 * static_cast<double>(counts[i]) /
                   static_cast<double>(std::max<uint64_t>(1, aLateness.Total())),
               std::string(static_cast<size_t>(bar), '#').c_str());
    }
}

int MediaEngine::Summary(const std::string& aProblem) {
    uint64_t sent = 0, received = 0, duplicated = 0, reordered = 0, missed = 0, offGrid = 0;
    const Stream* latest = nullptr;  // the stream whose last tick was latest
    for (const std::unique_ptr<Stream>& stream : m_streams) {
        const StreamBook& book = m_receiver->books[stream->id];
        sent += stream->seq;
        received += book.received;
        duplicated += book.duplicated;
        reordered += book.reordered;
        missed += stream->missed;
        offGrid += stream->offGrid;
        if (!latest || stream->lastLateUs > latest->lastLateUs) latest = stream.get();
    }
    const uint64_t lost = sent - std::min(sent, received);
    std::string problem = aProblem;
    if (problem.empty()) problem = m_run.FirstFailure();
    if (problem.empty() && (lost || duplicated || reordered || m_receiver->corrupt)) {
        problem = "frames were lost, duplicated, out of order or corrupt";
    }
    if (problem.empty() && offGrid) problem = "timers left the grid of their first due time";
    if (problem.empty() && sent == 0)
        problem = "no frame was sent: the run was shorter than a period";

    auto quantiles = [](const Histogram& aHistogram) {
        char text[96];
        snprintf(text, sizeof(text), "p50 %.0f us, p99 %.0f us, max %.0f us",
                 aHistogram.Quantile(0.5), aHistogram.Quantile(0.99), aHistogram.MaxMicros());
        return std::string(text);
    };
    printf("summary:\n");
    printf(
        "  streams         %lu x %lu-byte frames every %lu ms over %s, %lu load thread%s, %.1f s\n",
        m_options.streams, m_options.frame, m_options.period, m_options.tcp ? "tcp" : "udp",
        m_options.load, m_options.load == 1 ? "" : "s", m_elapsed);
    printf("  timer lateness  %s (%llu ticks)\n", quantiles(m_run.lateness).c_str(),
           static_cast<unsigned long long>(m_run.lateness.Total()));
    printf("  missed periods  %llu\n", static_cast<unsigned long long>(missed));
    if (latest) {
        printf(
            "  grid            last tick %lld us after its slot, %lld periods after the first "
            "due time; %llu ticks off the grid\n",
            static_cast<long long>(latest->lastLateUs), static_cast<long long>(latest->lastSlot),
            static_cast<unsigned long long>(offGrid));
    }
    printf("  tick to wire    %s\n", quantiles(m_run.wire).c_str());
    printf("  tick to arrival %s\n", quantiles(m_run.arrival).c_str());
    printf(
        "  frames          %llu sent, %llu received: %llu lost, %llu duplicated, %llu out of "
        "order, %llu corrupt\n",
        static_cast<unsigned long long>(sent), static_cast<unsigned long long>(received),
        static_cast<unsigned long long>(lost), static_cast<unsigned long long>(duplicated),
        static_cast<unsigned long long>(reordered),
        static_cast<unsigned long long>(m_receiver->corrupt));
    if (m_options.tcp) {
        printf("  receive buffer  the system's: tcp holds a sender back instead of dropping\n");
    } else if (m_receiver->bufferGiven >= m_receiver->bufferAsked) {
        printf("  receive buffer  %llu bytes a socket, for 0.5 s of frames\n",
               m_receiver->bufferGiven);
    } else {
        printf(
            "  receive buffer  %llu bytes a socket asked for 0.5 s of frames, %llu given: the "
            "system refused more (net.core.rmem_max)\n",
            m_receiver->bufferAsked, m_receiver->bufferGiven);
    }
    PrintLateness(m_run.lateness);
    if (problem.empty()) {
        printf("  result          OK, every frame arrived intact, once and in order\n");
    } else {
        printf("  result          FAILED: %s\n", problem.c_str());
    }
    fflush(stdout);
    return problem.empty() ? 0 : 1;
}

}  // namespace

int RunMedia(const Options& aOptions, const std::string& aNote) {
    MediaEngine engine(aOptions, aNote);
    const bool ready = engine.Setup();
    const int signal = ready ? engine.Play() : 0;
    engine.Stop();
    const bool clean = engine.Teardown();
    if (!ready) return 1;
    std::string problem;
    if (signal) problem = signal == SIGINT ? "interrupted by SIGINT" : "interrupted by SIGTERM";
    if (!clean) problem = "a thread did not shut down cleanly";
    return engine.Summary(problem);
}

}  // namespace demo
