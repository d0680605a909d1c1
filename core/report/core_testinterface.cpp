#include "core/report/core_testinterface.h"

#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "core/check/core_assert.h"
#include "core/files/core_dir.h"
#include "core/files/core_settingsfile.h"
#include "core/identity/core_product.h"
#include "core/identity/core_rcsname.h"
#include "core/log/core_v2masterlogger.h"
#include "core/memory/core_neverdestroyed.h"
#include "core/net/core_socket.h"
#include "core/stack/core_stacktrace.h"
#include "core/time/core_time.h"

namespace NS_CORE {
namespace {

constexpr const char* kSettingsFile = "settings/testing.ini";
constexpr const char* kOtherSettingsFile = "settings/testing.alt.ini";
constexpr const char* kExclusionsFile = "settings/assert.exclude";
constexpr const char* kOtherExclusionsFile = "assert.exclude";

constexpr std::string_view kSendFunction = "CORE::TestInterface::sendAsserts";

// How long a thread whose failure stops the process waits for the thread that is sending. There is a limit because the
// sender may in turn wait for the logger's lock, which this thread may hold.
constexpr absl::Duration kPatience = absl::Seconds(1);

// The executable's file name, which reports contain as <server>.
std::string executableName() {
    std::string path;
    if (!Dir::getModuleFilename(path)) return {};
    return path.substr(path.find_last_of("/\\") + 1);
}

ReportSource sourceOfThisProcess() {
    ReportSource source;
    source.server = escapedXml(executableName());
    source.softwareVersion = escapedXml(version());
    source.hostName = escapedXml(hostName());
    source.os = escapedXml(platform());
    source.buildId = escapedXml(buildId());
    source.buildTime = escapedXml(absl::StrCat(buildDate(), " ", buildTime()));
    return source;
}

void logIgnoredEntries(const AssertExclusions& exclusions, const char* path) {
    constexpr std::string_view kFunction = "CORE::TestInterface::loadExclusions";
    if (exclusions.malformedDates() > 0)
        MLOG(Warn, kFunction, "'%s': %d entries ignored, their dates are not YYYY-MM-DD", path,
             exclusions.malformedDates());
    if (exclusions.passedDates() > 0)
        MLOG(Info, kFunction, "'%s': %d entries ignored, this build is later than their dates", path,
             exclusions.passedDates());
    if (exclusions.tooMany() > 0)
        MLOG(Warn, kFunction, "'%s': %d entries ignored, there are too many", path, exclusions.tooMany());
}

} // namespace

TestInterface::TestInterface(std::function<int32_t()> utcSeconds)
    : m_utcSeconds(utcSeconds ? std::move(utcSeconds) : [] { return systemNow().seconds; }),
      m_collector(collectorOf(m_settings)),
      m_exclusions(buildDate()),
      m_source(sourceOfThisProcess()) {}

TestInterface& TestInterface::instance() {
    // Never destroyed, because checks fail in static destructors, too.
    static NeverDestroyed<TestInterface> instance;
    return *instance;
}

// Returns nothing, after a warning, if the address is invalid.
std::optional<sockaddr_in> TestInterface::collectorOf(const TestSettings& settings) {
    sockaddr_in collector;
    if (SetSockAddr(settings.sendAddress, static_cast<uint16_t>(settings.sendPort), collector)) return collector;
    MLOG(Warn, kSendFunction, "nothing is sent to '%s'", settings.sendAddress);
    return std::nullopt;
}

bool TestInterface::loadIni() {
    TestSettings settings = this->settings();
    settings.assertLevel = Assert::level();
    TestSettingsParser parser(&settings);
    const auto addLine = [&parser](std::string_view line) { parser.addLine(line); };
    if (!readSettingsFile(kSettingsFile, addLine) && !readSettingsFile(kOtherSettingsFile, addLine)) return false;
    Assert::setLevel(settings.assertLevel);
    const std::optional<sockaddr_in> collector = collectorOf(settings);
    const absl::MutexLock lock(&m_mutex);
    m_settings = std::move(settings);
    m_collector = collector;
    return true;
}

bool TestInterface::loadExclusions() {
    AssertExclusions exclusions(buildDate());
    const auto addLine = [&exclusions](std::string_view line) { exclusions.addLine(line); };
    const char* path = kExclusionsFile;
    if (!readSettingsFile(path, addLine)) {
        path = kOtherExclusionsFile;
        if (!readSettingsFile(path, addLine)) return false;
    }
    exclusions.finish();
    logIgnoredEntries(exclusions, path);
    const absl::MutexLock lock(&m_mutex);
    m_exclusions = std::move(exclusions);
    return true;
}

void TestInterface::readFiles() {
    loadIni();
    loadExclusions();
}

TestSettings TestInterface::settings() const {
    const absl::MutexLock lock(&m_mutex);
    return m_settings;
}

void TestInterface::changeActionFlags(FlagChange change, uint32_t bits) {
    const absl::MutexLock lock(&m_mutex);
    if (change == FlagChange::Set)
        m_settings.actionFlags |= bits;
    else
        m_settings.actionFlags &= ~bits;
}

void TestInterface::setLogAddress(std::string_view address) {
    const absl::MutexLock lock(&m_mutex);
    m_source.logAddress = escapedXml(address);
}

bool TestInterface::isExcluded(std::string_view file, int32_t line) const {
    const absl::MutexLock lock(&m_mutex);
    return m_exclusions.contains(file, line);
}

bool TestInterface::aborts(FailureKind kind) const {
    const absl::MutexLock lock(&m_mutex);
    return (m_settings.actionFlags & TestAction::abortBit(kind)) != 0;
}

size_t TestInterface::recordCount() const {
    const absl::MutexLock lock(&m_mutex);
    return m_records.size();
}

bool TestInterface::wantsTrace(const Failure& failure) const {
    const absl::MutexLock lock(&m_mutex);
    return m_records.wantsTrace(failure, m_settings.actionFlags);
}

// A function of its own, so that every backtrace begins with the same line.
[[gnu::noinline]] std::string TestInterface::trace() {
    const std::string text = StackTrace().toText();
    return framedBacktrace(text);
}

void TestInterface::report(const Failure& failure) {
    std::string backtrace = wantsTrace(failure) ? trace() : std::string();
    FailureRecords::Kept kept;
    {
        const absl::MutexLock lock(&m_mutex);
        kept = m_records.add(failure, std::move(backtrace));
    }
    if (kept == FailureRecords::Kept::NoRoom)
        MLOG(Warn, kSendFunction, "%u places with failures wait for their report, further ones are not kept",
             FailureRecords::kMaxRecords);
    send(aborts(failure.kind) ? Wait::Yes : Wait::No);
}

void TestInterface::sendPending() {
    send(Wait::Yes);
}

bool TestInterface::hasPendingLocked() const {
    return m_collector && m_records.firstPending(m_settings.actionFlags) != nullptr;
}

bool TestInterface::hasPending() const {
    const absl::MutexLock lock(&m_mutex);
    return hasPendingLocked();
}

// Waiting without a limit for the thread that sends could deadlock: it may be about to log while this thread serves a
// record and holds the logger's lock. So this thread leaves its record to the sender, which looks for pending records
// again after it has released m_sendMutex.
void TestInterface::send(Wait wait) {
    while (hasPending()) {
        if (!m_sendMutex.TryLock()) {
            const absl::MutexLock lock(&m_mutex);
            if (wait == Wait::Yes)
                m_mutex.AwaitWithTimeout(absl::Condition(this, &TestInterface::isAllReported), kPatience);
            return;
        }
        const Sending sending = sendEach();
        m_sendMutex.Unlock();
        if (sending == Sending::Refused) return;
    }
}

// When the system refuses to send a record, that one and the records after it stay pending.
TestInterface::Sending TestInterface::sendEach() {
    while (true) {
        FailureRecord record;
        std::string document;
        sockaddr_in collector;
        {
            const absl::MutexLock lock(&m_mutex);
            if (!m_collector || !hasPendingLocked()) return Sending::Done;
            record = *m_records.firstPending(m_settings.actionFlags);
            document = documentOf(record);
            collector = *m_collector;
        }
        const bool fits = document.size() <= kMaxDatagram;
        if (fits && !sendDocument(document, collector)) return Sending::Refused;
        bool isFirstTooLarge = false;
        {
            const absl::MutexLock lock(&m_mutex);
            if (fits)
                m_records.markReported(record);
            else
                isFirstTooLarge = m_records.markTooLarge(record);
        }
        if (isFirstTooLarge)
            MLOG(Warn, kSendFunction, "report of %s:%d not sent, its %u bytes are more than a datagram holds",
                 record.file, record.line, document.size());
    }
}

std::string TestInterface::documentOf(const FailureRecord& record) {
    m_source.product = escapedXml(productIdentifier());
    return assertDocument({.kind = record.kind,
                           .file = record.file,
                           .line = record.line,
                           .condition = record.condition,
                           .message = record.message,
                           .backtrace = record.backtrace,
                           .level = record.level,
                           .count = record.occurrences - record.reported,
                           .total = record.occurrences,
                           .utc = m_utcSeconds(),
                           .aborts = (m_settings.actionFlags & TestAction::abortBit(record.kind)) != 0},
                          m_source);
}

bool TestInterface::sendDocument(const std::string& document, const sockaddr_in& collector) {
    if (!m_socket.isOpen() && !m_socket.open(SocketFlag::NonBlocking, kAnyAddress)) {
        MasterLogger::logText(LogLevel::Warn, "TestInterface:sendAsserts - failed creating socket");
        return false;
    }
    return m_socket.send(collector, document.data(), static_cast<uint32_t>(document.size()));
}

void TestInterface::requestSendLogs(std::string_view file, std::string_view line) {
    std::string document;
    uint16_t port = 0;
    {
        const absl::MutexLock lock(&m_mutex);
        document = logRequestDocument(file, line, m_source.server);
        port = static_cast<uint16_t>(m_settings.sendPort);
    }
    Udp4Socket socket;
    if (!socket.open(SocketFlag::NonBlocking, kAnyAddress)) {
        MasterLogger::logText(LogLevel::Warn, "TestInterface:requestSendLogs - d_socket is null\n");
        return;
    }
    // The socket logs a failure.
    static_cast<void>(socket.send(kLoopbackAddress, port, document.data(), static_cast<uint32_t>(document.size())));
}

namespace {

constexpr AssertPolicy kPolicy{
    .isExcluded = [](std::string_view file, int32_t line) { return TestInterface::instance().isExcluded(file, line); },
    .report = [](const Failure& failure) { TestInterface::instance().report(failure); },
    .stopsProcess = [] { return TestInterface::instance().aborts(FailureKind::Assertion); },
};

// Before main, so that the files already count for checks that fail in later initialisers.
[[maybe_unused]] const bool g_installed = [] {
    TestInterface::instance().readFiles();
    setAssertPolicy(&kPolicy);
    return true;
}();

} // namespace
} // namespace NS_CORE
