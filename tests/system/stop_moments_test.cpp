#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/await.h"
#include "tests/system/installation.h"
#include "tests/system/platform.h"
#include "tests/system/supervised_service.h"

// A stop request at any moment after a start. What becomes of it depends on how far the start has come:
//
//     the libraries are being copied           lost: supervision begins afterwards and knows nothing of it
//     the companion runs, its port is not bound the datagram is lost, the request is kept: the service stops when the
//                                              companion ends, however long that takes
//     the companion's port is bound            heard: the companion ends and the service stops
namespace test {
namespace {

using std::chrono::milliseconds;

enum class Outcome { Lost, Kept, Heard };

const char* nameOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::Lost:
            return "lost";
        case Outcome::Kept:
            return "kept";
        case Outcome::Heard:
            return "heard";
    }
    return "";
}

// Microseconds of the steady clock.
struct Moment {
    int64_t running;
    int64_t requested;
    int64_t answered;
    int64_t deployed;
    int64_t started;
    int64_t ready;
    Outcome outcome;
};

constexpr int64_t kBindDelay = 300'000;
// A file's time is only as fine as the system's tick.
constexpr int64_t kFileTimeStep = 20'000;

// The outcomes that the design gives for the moment; two where the request fell together with a change.
std::vector<Outcome> expected(const Moment& moment) {
    if (moment.requested > moment.ready) return {Outcome::Heard};
    if (moment.requested > moment.started) {
        if (moment.answered < moment.started + kBindDelay) return {Outcome::Kept};
        return {Outcome::Kept, Outcome::Heard};
    }
    // Between the last copy and the first start the flag is set, which cannot be seen from outside.
    if (moment.answered < moment.deployed - kFileTimeStep) return {Outcome::Lost};
    return {Outcome::Lost, Outcome::Kept};
}

// A datagram of our own, sent after the service's and heard after it, ends a companion that did not hear the service's.
Outcome settle(const Installation& installation, SupervisedService& service) {
    installation.awaitRecord("ready");
    constexpr size_t kOwnLength = 1;
    sendDatagram(kStopPort, kOwnLength);
    const bool isHeard = installation.awaitRecord("datagram").text.starts_with("10 ");
    const auto isSettled = [&] {
        const std::vector<std::string> log = installation.log();
        return service.hasStopped() || std::find(log.begin(), log.end(), line::failed) != log.end();
    };
    EXPECT_TRUE(await(isSettled, std::chrono::seconds(5)));
    if (isHeard) return Outcome::Heard;
    return service.hasStopped() ? Outcome::Kept : Outcome::Lost;
}

// When the last library was written, by the steady clock.
int64_t deploymentEnd(const Installation& installation) {
    return nowMicroseconds() - sinceWritten(installation.bin() / kLibraries.back()).count();
}

Moment stopAt(const Installation& installation, SupervisedService& service, milliseconds after) {
    Moment moment{};
    service.start();
    moment.running = nowMicroseconds();
    // The moment is what is being tested: there is no event to wait for.
    std::this_thread::sleep_for(after);
    moment.requested = nowMicroseconds();
    service.requestStop();
    moment.answered = nowMicroseconds();
    moment.outcome = settle(installation, service);
    moment.deployed = deploymentEnd(installation);
    moment.started = installation.awaitRecord("started").microseconds;
    moment.ready = installation.awaitRecord("ready").microseconds;
    if (moment.outcome == Outcome::Lost)
        service.kill();
    else
        service.awaitStopped();
    installation.endPrograms();
    installation.clearTraces();
    return moment;
}

double milli(int64_t microseconds) {
    return static_cast<double>(microseconds) / 1000;
}

TEST(StopMoments, EndAsTheDesignSaysAtFiftyMomentsOfTheFirstTwoSeconds) {
    const Installation installation;
    constexpr size_t kLibrarySize = 8U << 20U;
    installation.putLibraries(kLibrarySize);
    installation.setCompanion("bindAfter " + std::to_string(kBindDelay / 1000));
    auto service = std::make_unique<SupervisedService>(installation);
    constexpr int kMoments = 50;
    std::vector<int64_t> untilDeployed;
    std::vector<int64_t> untilReady;
    std::map<Outcome, int> counts;
    for (int i = 0; i < kMoments; ++i) {
        constexpr int kStepMs = 2000 / kMoments;
        const milliseconds after(i * kStepMs);
        const Moment moment = stopAt(installation, *service, after);
        std::string design;
        for (const Outcome outcome : expected(moment))
            design += std::string(design.empty() ? "" : " or ") + nameOf(outcome);
        std::printf("stop %7.1f ms after running: %-5s (design: %s)\n", milli(moment.requested - moment.running),
                    nameOf(moment.outcome), design.c_str());
        const std::vector<Outcome> outcomes = expected(moment);
        EXPECT_NE(std::find(outcomes.begin(), outcomes.end(), moment.outcome), outcomes.end());
        ++counts[moment.outcome];
        untilDeployed.push_back(moment.deployed - moment.running);
        untilReady.push_back(moment.ready - moment.running);
        // The manager keeps believing in a service whose process was ended.
        if (moment.outcome == Outcome::Lost) {
            service.reset();
            service = std::make_unique<SupervisedService>(installation);
        }
    }
    std::sort(untilDeployed.begin(), untilDeployed.end());
    std::sort(untilReady.begin(), untilReady.end());
    std::printf("%d lost, %d kept, %d heard.\n", counts[Outcome::Lost], counts[Outcome::Kept], counts[Outcome::Heard]);
    std::printf("A stop can be lost for %.1f ms after running (median; most: %.1f ms), with six libraries of 8 MiB.\n",
                milli(untilDeployed[untilDeployed.size() / 2]), milli(untilDeployed.back()));
    std::printf("It is kept but not heard until %.1f ms (median), %.1f ms of which the companion waits on purpose.\n",
                milli(untilReady[untilReady.size() / 2]), milli(kBindDelay));
    EXPECT_GT(counts[Outcome::Kept], 0);
    EXPECT_GT(counts[Outcome::Heard], 0);
}

} // namespace
} // namespace test
