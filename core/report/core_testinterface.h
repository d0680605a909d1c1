#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "core/net/core_socketaddress.h"
#include "core/net/core_udp4socket.h"
#include "core/report/core_failuredefault.h"
#include "core/report/internal/core_assertexclusions.h"
#include "core/report/internal/core_failurerecords.h"
#include "core/report/internal/core_testreport.h"
#include "core/report/internal/core_testsettings.h"

namespace NS_CORE {

// Decides what a failed check does in an installation under test: whether the process stops, and whether the failure
// is reported to a collector, as an XML document in a datagram. Without settings files nothing is sent and nothing
// stops.
//
// Every program that names this class gets the process's own object before main. It reads its files from the working
// directory of that moment and becomes the AssertPolicy (core_failuredefault.h). A program that changes its working
// directory afterwards calls readFiles() again.
//
//     settings/testing.ini     or else settings/testing.alt.ini   TestSettingsParser
//     settings/assert.exclude  or else assert.exclude             AssertExclusions
//
// Failures of one kind at one place are one record with counts (FailureRecords). report() sends every pending record
// before it returns, so nothing waits for a timer, a crash or the end of the process. Only two things keep a record
// pending: the system refuses to send (logged at WARN), or another thread is sending, and then that thread sends this
// record as well before it goes on. A pending record goes out with the next failure, or with sendPending().
//
// Sending never blocks, whether the collector is away or the system's buffer is full. Datagrams may get lost on the
// way; the total in a later one shows it. A document too large for a datagram is not sent, which logs WARN once for its
// record. If the settings name an invalid address, reading them logs WARN, and nothing is sent.
//
// Any thread may call anything, also while its own log records are being served: no call waits for a lock that
// another thread holds while it logs.
class TestInterface {
public:
    // What IPv4 leaves of 65535 bytes.
    static constexpr size_t kMaxDatagram = 65'507;

    // Knows this build, this machine and its executable; has read no files.
    // utcSeconds  the time of a report, in seconds since 1970; the system's when it is not given.
    explicit TestInterface(std::function<int32_t()> utcSeconds = {});
    TestInterface(const TestInterface&) = delete;
    TestInterface& operator=(const TestInterface&) = delete;
    ~TestInterface() = default;

    // The process's own object. Never destroyed.
    static TestInterface& instance();

    // Changes the settings as the file in the working directory says; what it does not name stays. Returns false, and
    // changes nothing, if there is no file. A change of flags that another thread makes meanwhile is lost.
    bool loadIni();

    // Replaces the exclusions by those of the file in the working directory. Returns false, and changes nothing, if
    // there is no file.
    bool loadExclusions();

    // Calls loadIni and loadExclusions.
    void readFiles();

    TestSettings settings() const;

    enum class FlagChange { Set, Clear };
    // Changes the bits of actionFlags (TestAction) that `bits` has.
    void changeActionFlags(FlagChange change, uint32_t bits);

    // Where this machine's logs can be fetched; part of every later report. Empty, as at start, leaves the part out.
    void setLogAddress(std::string_view address);

    bool isExcluded(std::string_view file, int32_t line) const;

    // Whether a failure of the kind stops the process.
    bool aborts(FailureKind kind) const;

    // Counts the failure, then sends every pending record. The report has the latest message, and the backtrace of the
    // first failure, taken on the calling thread. If another thread is sending, returns at once; but a failure that
    // stops the process waits up to a second for that thread.
    void report(const Failure& failure);

    // Sends every pending record. If another thread is sending, waits up to a second for it.
    void sendPending();

    // Sends the request for logs to this machine's own log agent, 127.0.0.1 at the collector's port. Without a socket
    // logs WARN and sends nothing.
    void requestSendLogs(std::string_view file, std::string_view line);

    // For tests: how many records are kept.
    size_t recordCount() const;

private:
    enum class Wait { No, Yes };
    enum class Sending { Done, Refused };

    static std::optional<sockaddr_in> collectorOf(const TestSettings& settings);
    bool wantsTrace(const Failure& failure) const;
    static std::string trace();
    bool hasPending() const;
    bool hasPendingLocked() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex);
    bool isAllReported() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex) { return !hasPendingLocked(); }
    void send(Wait wait);
    Sending sendEach() ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_sendMutex);
    std::string documentOf(const FailureRecord& record) ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_mutex);
    bool sendDocument(const std::string& document, const sockaddr_in& collector)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(m_sendMutex);

    const std::function<int32_t()> m_utcSeconds;

    // Held while documents are built and sent, so that failures on several threads give whole documents one after
    // another. Sending may log, so nobody waits for this lock: see send().
    absl::Mutex m_sendMutex ABSL_ACQUIRED_BEFORE(m_mutex);
    Udp4Socket m_socket ABSL_GUARDED_BY(m_sendMutex);

    // Never held while something is called that may log.
    mutable absl::Mutex m_mutex;
    TestSettings m_settings ABSL_GUARDED_BY(m_mutex);
    std::optional<sockaddr_in> m_collector ABSL_GUARDED_BY(m_mutex); // none: the address is invalid
    AssertExclusions m_exclusions ABSL_GUARDED_BY(m_mutex);
    ReportSource m_source ABSL_GUARDED_BY(m_mutex);
    FailureRecords m_records ABSL_GUARDED_BY(m_mutex);
};

} // namespace NS_CORE
