#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "core/net/core_udp4socket.h"
#include "core/report/internal/core_assertexclusions.h"
#include "core/report/internal/core_testreport.h"
#include "core/report/internal/core_testsettings.h"

namespace NS_CORE {

// Decides what a failed check does, for an installation that is under test: whether the process stops, and whether
// the failure is reported to a collector, as an XML document in a datagram. Without settings files nothing is sent
// and nothing stops.
//
// The process's own is made before main in every program that names it, reads its files from the working directory of
// that moment and becomes the AssertPolicy (core_assertpolicy.h). A program that changes its working directory calls
// readMissingFiles() afterwards.
//
//     settings/testing.ini     or else settings/testing.alt.ini   TestSettingsParser
//     settings/assert.exclude  or else assert.exclude             AssertExclusions
//
// Failures of one kind at one place are one record with counts. The first is reported at once, further ones together
// at most once in kReportPeriodMs, when one of any place comes next; what is left over goes out with sendPending(). A
// failure that stops the process is reported before it does.
// At most kMaxRecords places are kept; for a further one the oldest that has been reported makes room.
//
// A collector that cannot be reached is told at WARN where sending fails, and tried again after a minute, then two,
// up to an hour; until then failures are counted. An address that is none is told once and not tried again. A
// document too large for a datagram is told at WARN, once for its record, and not sent.
//
// Any thread may call anything, also while its log records are being served: the object's lock is never held while
// something is called that may log. Sending does not block.
class TestInterface {
public:
    static constexpr size_t kMaxRecords = 256;
    static constexpr uint64_t kReportPeriodMs = 10'000;
    static constexpr uint64_t kFirstRetryMs = 60'000;
    static constexpr uint64_t kLongestRetryMs = 3'600'000;
    // What IPv4 leaves of 65535 bytes.
    static constexpr size_t kMaxDatagram = 65'507;

    struct Failure {
        FailureKind kind;
        std::string_view condition;
        std::string_view file;
        int32_t line;
        int32_t level;
        std::string_view message;
    };

    struct Clock {
        std::function<uint64_t()> monotonicMs;
        std::function<int32_t()> utcSeconds;
        static Clock ofSystem();
    };

    // Knows this build, this machine and its executable; has read no files.
    explicit TestInterface(Clock clock = Clock::ofSystem());
    TestInterface(const TestInterface&) = delete;
    TestInterface& operator=(const TestInterface&) = delete;
    ~TestInterface() = default;

    // The process's own; it lives until the process has ended.
    static TestInterface& instance();

    // Each reads its file anew from the working directory, on top of the defaults. False, with all as it was, when
    // there is none.
    bool loadIni();
    bool loadExclusions();

    // The two for those files that have not been found yet.
    void readMissingFiles();

    TestSettings settings() const;

    enum class FlagChange { Set, Clear };
    // Changes the bits of actionFlags (TestAction) that `bits` has.
    void changeActionFlags(FlagChange change, uint32_t bits);

    // Where logs of this machine may be had; part of the reports from then on. Empty at start: no part.
    void setLogAddress(std::string_view address);

    bool isExcluded(std::string_view file, int32_t line) const;

    // Whether a failure of the kind stops the process.
    bool aborts(FailureKind kind) const;

    // Takes the failure into its record and sends what is due. The message that is reported is the latest; the
    // backtrace is the first's, of the calling thread.
    void report(const Failure& failure);

    // Sends all that is not yet reported, whatever the period and the collector's state. At the end of the program.
    void sendPending();

    // Sends the request for logs to this machine's own log agent, 127.0.0.1 at the collector's port. Without a socket
    // nothing is sent, which is told at WARN.
    void requestSendLogs(std::string_view file, std::string_view line);

    size_t recordCount() const;

private:
    struct Record {
        FailureKind kind;
        std::string file;
        int32_t line;
        std::string condition;
        std::string message;
        std::string backtrace;
        int32_t level;
        uint64_t occurrences = 0;
        uint64_t reported = 0;
        uint64_t nextReportMs = 0;
        bool traced = false;
        bool toldTooLarge = false;

        bool isOf(const Failure& failure) const {
            return line == failure.line && kind == failure.kind && file == failure.file;
        }
    };

    enum class Pass { Due, All };
    enum class Sent { Yes, TooLarge, No };

    Record* find(const Failure& failure) ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex);
    Record* recordOf(const Failure& failure) ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex);
    bool wantsTrace(const Failure& failure);
    static std::string trace();
    bool take(const Failure& failure, bool isTraced, std::string backtrace);
    void send(Pass pass);
    std::vector<Record> takeUnreported(Pass pass) ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex);
    bool sendEach(const std::vector<Record>& records);
    Sent sendOne(const Record& record);
    void settle(const Record& record, Sent sent);
    [[nodiscard]] bool openSocket();

    const Clock m_clock;

    mutable absl::Mutex m_mutex;
    TestSettings m_settings ABSL_GUARDED_BY(m_mutex);
    AssertExclusions m_exclusions ABSL_GUARDED_BY(m_mutex);
    bool m_settingsFound ABSL_GUARDED_BY(m_mutex) = false;
    bool m_exclusionsFound ABSL_GUARDED_BY(m_mutex) = false;
    ReportSource m_source ABSL_GUARDED_BY(m_mutex);
    std::vector<Record> m_records ABSL_GUARDED_BY(m_mutex);
    bool m_toldFull ABSL_GUARDED_BY(m_mutex) = false;
    bool m_addressRefused ABSL_GUARDED_BY(m_mutex) = false;
    uint64_t m_retryMs ABSL_GUARDED_BY(m_mutex) = 0;    // 0: the last sending went well
    uint64_t m_nextSendMs ABSL_GUARDED_BY(m_mutex) = 0; // not tried again before
    // The right to send, with m_socket, which one thread has at a time, so that no lock is needed while it calls
    // others.
    bool m_sending ABSL_GUARDED_BY(m_mutex) = false;

    Udp4Socket m_socket; // of the thread that has the right to send
};

} // namespace NS_CORE
