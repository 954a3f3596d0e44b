#include <future>

#include "test_support.h"

namespace {

using namespace std::chrono_literals;

// Repeats aWake until the waiter has returned: a wake-up sent before the
// waiter blocks must not make the test hang or flake.
template <class T, class Wake>
T WakeUntilDone(std::future<T>& aWaiter, Wake aWake) {
    while (aWaiter.wait_for(10ms) == std::future_status::timeout) aWake();
    return aWaiter.get();
}

TEST(ComSemaphore, CountsPostsAndTracesFailures) {
    TraceCapture capture;
    ComSemaphore sem(0, "ignored", 0);
    EXPECT_EQ(COM_OK, sem.PostN(0));
    EXPECT_TRUE(capture.Traced(kError, AssertLine("ComTaskBase", 129, "aCount >= 1")));
    EXPECT_EQ(COM_OK, sem.PostN(3));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(COM_OK, sem.Lock());

    // The count is used up, so the next Lock blocks (a stray post would let it
    // through); a signal ends that wait as a failure, it is not retried.
    struct sigaction action = {};
    action.sa_handler = [](int) {};  // and no SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<pthread_t> waiter{0};
    auto interrupted =
        std::async(std::launch::async, [&] { return waiter = pthread_self(), sem.Lock(); });
    EXPECT_EQ(COM_ERROR_FAILURE, WakeUntilDone(interrupted, [&] {
                  if (waiter) pthread_kill(waiter, SIGUSR1);
              }));
    EXPECT_TRUE(capture.Traced(kError, "ComSemaphore::Lock, sem_wait() failed! err=" +
                                           std::to_string(EINTR) + This(&sem)));
    EXPECT_EQ(COM_OK, sem.UnLock());
    EXPECT_EQ(COM_OK, sem.Lock());

    ComSemaphore full(SEM_VALUE_MAX);  // one more post would overflow
    EXPECT_EQ(COM_ERROR_FAILURE, full.UnLock());
    EXPECT_TRUE(capture.Traced(kError, "ComSemaphore::UnLock, sem_post() failed! err=" +
                                           std::to_string(EOVERFLOW) + This(&full)));
    ComSemaphore refused(-1);  // beyond SEM_VALUE_MAX: sem_init fails with EINVAL
    EXPECT_TRUE(capture.Traced(kError, "ComSemaphore::ComSemaphore, sem_init() failed! err=" +
                                           std::to_string(EINVAL) + This(&refused)));
    EXPECT_TRUE(capture.Traced(kError, AssertLine("ComTaskBase", 78, "FALSE")));
}

// The event's waits are its condition variable's: timed, untimed and woken.
TEST(ComEvent, SignalPassesOneWaitOrAllPulseOnlyTheWaiting) {
    TraceCapture capture;
    ComTimeValueType none(0, 0), oneAndAHalf(1, 500000), limit(30, 0);
    ComEvent event(0, 0, "ignored");
    // Both the seconds and the microseconds of a time-out count.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(COM_ERROR_TIMEOUT, event.Wait(&oneAndAHalf));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1400ms);
    EXPECT_EQ(COM_OK, event.Signal());  // nobody waiting: kept for the next Wait
    EXPECT_EQ(COM_OK, event.Wait(&none));
    EXPECT_EQ(COM_ERROR_TIMEOUT, event.Wait(&none));
    EXPECT_EQ(COM_OK, ComEvent(0, 1, nullptr).Wait(&none));  // created signalled

    auto waiter = std::async(std::launch::async, [&] { return event.Wait(&limit); });
    EXPECT_EQ(COM_OK, WakeUntilDone(waiter, [&] { event.Signal(); }));

    // A pulse releases only threads already waiting, whatever the reset mode.
    ComEvent manual(1, 0, nullptr);
    for (ComEvent* pulsed : {&event, &manual}) {
        EXPECT_EQ(COM_OK, pulsed->Pulse());
        EXPECT_EQ(COM_ERROR_TIMEOUT, pulsed->Wait(&none));
        waiter = std::async(std::launch::async, [&] { return pulsed->Wait(&limit); });
        EXPECT_EQ(COM_OK, WakeUntilDone(waiter, [&] { pulsed->Pulse(); }));
        EXPECT_EQ(COM_ERROR_TIMEOUT, pulsed->Wait(&none));
    }

    auto first = std::async(std::launch::async, [&] { return manual.Wait(); });
    auto second = std::async(std::launch::async, [&] { return manual.Wait(); });
    EXPECT_EQ(std::future_status::timeout, first.wait_for(100ms));
    EXPECT_EQ(COM_OK, manual.Signal());
    EXPECT_EQ(COM_OK, first.get());
    EXPECT_EQ(COM_OK, second.get());
    EXPECT_EQ(COM_OK, manual.Wait(&none));         // stays signalled
    EXPECT_EQ(COM_ERROR_FAILURE, manual.Reset());  // refused: still signalled
    EXPECT_EQ(COM_OK, manual.Wait(&none));
    EXPECT_EQ(COM_OK, manual.Pulse());
    EXPECT_EQ(COM_ERROR_TIMEOUT, manual.Wait(&none));
    EXPECT_TRUE(capture.Lines().empty());  // running out of time is not a failure
}

}  // namespace
