// The host's main queue in real time: what runs when, in which order, and how a host gets out of it.
#include <pelm/platform/run_loop.hpp>

#include <gmock/gmock.h>

#include <string>
#include <thread>
#include <vector>

namespace pelm::platform {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

TEST(RunLoop, TasksRunInTheOrderPostedAndTimersByTheirInstantTimersPostedFromTimersIncluded) {
    RunLoop loop;
    std::vector<std::string> ran;
    loop.postAfter(30ms, [&] { ran.push_back("timer 30"); });
    loop.postAfter(10ms, [&] {
        ran.push_back("timer 10");
        // Posted from a timer: a task runs before any later timer, a new timer at its own instant.
        loop.post([&] { ran.push_back("task from timer 10"); });
        loop.postAfter(5ms, [&] { ran.push_back("timer 15"); });
    });
    loop.post([&] { ran.push_back("first"); });
    loop.post([&] { ran.push_back("second"); });
    EXPECT_TRUE(loop.runUntil([&] { return ran.size() == 6; }, 5s));
    EXPECT_THAT(ran,
                ElementsAre("first", "second", "timer 10", "task from timer 10", "timer 15", "timer 30"));
}

TEST(RunLoop, CancelTakesTheTimerItNamesAndNoOther) {
    RunLoop loop;
    std::vector<int> ran;
    const auto first = loop.postAfter(5ms, [&] { ran.push_back(1); });
    const auto second = loop.postAfter(5ms, [&] { ran.push_back(2); });
    loop.postAfter(5ms, [&] { ran.push_back(3); });
    loop.cancel(second);
    loop.cancel(second);  // twice: harmless
    loop.runFor(50ms);
    EXPECT_THAT(ran, ElementsAre(1, 3));
    loop.cancel(first);  // already run: harmless
    // A timer cancelled by the task before it, at the same instant, does not run.
    ran.clear();
    std::optional<MainQueue::TimerId> later;
    loop.postAfter(5ms, [&] {
        ran.push_back(4);
        loop.cancel(*later);
    });
    later = loop.postAfter(5ms, [&] { ran.push_back(5); });
    loop.runFor(50ms);
    EXPECT_THAT(ran, ElementsAre(4));
}

TEST(RunLoop, RunUntilAnswersWhetherItsConditionHeldAndStopEndsRunFromAnotherThread) {
    RunLoop loop;
    bool done = false;
    loop.postAfter(10ms, [&] { done = true; });
    EXPECT_TRUE(loop.runUntil([&] { return done; }, 5s));
    EXPECT_FALSE(loop.runUntil([] { return false; }, 20ms));

    // stop() from another thread ends run(), and a task posted from there runs first.
    bool posted = false;
    std::thread other([&] {
        std::this_thread::sleep_for(20ms);
        loop.post([&] { posted = true; });
        std::this_thread::sleep_for(20ms);
        loop.stop();
    });
    loop.run();
    other.join();
    EXPECT_TRUE(posted);

    // From a task: run() returns after that task.
    std::vector<int> ran;
    loop.post([&] {
        ran.push_back(1);
        loop.stop();
    });
    loop.postAfter(1h, [&] { ran.push_back(2); });
    loop.run();
    EXPECT_THAT(ran, ElementsAre(1));
}

}  // namespace
}  // namespace pelm::platform
