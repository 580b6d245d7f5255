// Ctrl-C and `kill` reach a host as a task on its loop; a second one ends the process as it always would.
#include <pelm/platform/run_loop.hpp>

#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <stdexcept>
#include <thread>

#include <unistd.h>

namespace pelm::platform {
namespace {

using namespace std::chrono_literals;

void (*currentHandler(int signal))(int) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler;
}

extern "C" void hostsOwnHandler(int) {}

TEST(RunLoopStopSignal, ArrivesOnceOnTheLoopThreadAndLeavesTheEarlierHandlingInPlaceAfterwards) {
    struct sigaction own {};
    own.sa_handler = hostsOwnHandler;
    ::sigaction(SIGTERM, &own, nullptr);
    {
        RunLoop loop;
        std::optional<int> received;
        int calls = 0;
        std::thread::id ranOn;
        loop.onStopSignal([](int) { ADD_FAILURE() << "the handler a second call replaced was called"; });
        loop.onStopSignal([&](int signal) {
            received = signal;
            ++calls;
            ranOn = std::this_thread::get_id();
        });
        EXPECT_THROW(RunLoop().onStopSignal([](int) {}), std::logic_error);

        // One press that a wrapper passed on twice: one stop, and the process lives on.
        ::kill(::getpid(), SIGTERM);
        ::kill(::getpid(), SIGINT);
        EXPECT_TRUE(loop.runUntil([&] { return received.has_value(); }, 10s));
        loop.runFor(50ms);
        EXPECT_EQ(received, SIGTERM);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(ranOn, std::this_thread::get_id());
    }
    // The loop is gone: the host's own handling is back, and another loop may watch.
    EXPECT_EQ(currentHandler(SIGTERM), hostsOwnHandler);
    RunLoop next;
    EXPECT_NO_THROW(next.onStopSignal([](int) {}));
    ::signal(SIGTERM, SIG_DFL);
}

TEST(RunLoopStopSignalDeathTest, ASecondCtrlCEndsAHostThatHangsInItsStop) {
    EXPECT_EXIT(
        {
            RunLoop loop;
            bool stopping = false;
            loop.onStopSignal([&](int) { stopping = true; });
            ::kill(::getpid(), SIGINT);
            loop.runUntil([&] { return stopping; }, 10s);
            // The host's stop hangs; the user presses Ctrl-C again.
            std::this_thread::sleep_for(300ms);
            ::kill(::getpid(), SIGINT);
            std::this_thread::sleep_for(10s);
            std::exit(0);
        },
        ::testing::KilledBySignal(SIGINT), "");
}

}  // namespace
}  // namespace pelm::platform
