#include "tests/service/stop_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/log_recorder.h"
#include "tests/support/semaphore.h"

namespace service {
namespace {

test::Semaphore g_companionEnds;
test::Semaphore g_loopHasEnded;

} // namespace

std::vector<std::string> stopInVain(const std::function<bool()>& prepare) {
    const test::LogRecorder log;
    int starts = 0;
    std::thread([&] {
        if (!prepare()) return;
        Supervisor supervisor({[] {},
                               [&](const char*) {
                                   ++starts;
                                   supervisor.stop();
                               }},
                              /*restartDelayMs=*/0);
        EXPECT_EQ(supervisor.run(0, nullptr), 0);
        EXPECT_EQ(starts, 1);
    }).join();
    return log.lines();
}

void stopThroughTheLoopsEnd(const std::function<void(Supervisor&)>& stop) {
    const test::LogRecorder log;
    test::Semaphore started;
    Supervisor supervisor({[] {},
                           [&](const char*) {
                               started.release();
                               g_companionEnds.acquire();
                           }},
                          /*restartDelayMs=*/0);
    std::thread loop([&] {
        EXPECT_EQ(supervisor.run(0, nullptr), 0);
        g_loopHasEnded.release();
    });
    started.acquire();
    stop(supervisor);
    g_companionEnds.release(); // for a loop that goes on
    loop.join();
}

void awaitTheLoopsEnd() {
    g_companionEnds.release();
    EXPECT_TRUE(g_loopHasEnded.acquireWithin(std::chrono::seconds(60)));
}

} // namespace service
