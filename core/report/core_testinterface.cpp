#include "core/report/core_testinterface.h"

#include <algorithm>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "core/check/core_assert.h"
#include "core/check/core_assertpolicy.h"
#include "core/files/core_dir.h"
#include "core/files/core_settingsfile.h"
#include "core/identity/core_product.h"
#include "core/identity/core_rcsname.h"
#include "core/log/core_v2masterlogger.h"
#include "core/net/core_socket.h"
#include "core/net/core_socketaddress.h"
#include "core/stack/core_stacktrace.h"
#include "core/time/core_time.h"

namespace NS_CORE {
namespace {

constexpr const char* kSettingsFile = "settings/testing.ini";
constexpr const char* kOtherSettingsFile = "settings/testing.alt.ini";
constexpr const char* kExclusionsFile = "settings/assert.exclude";
constexpr const char* kOtherExclusionsFile = "assert.exclude";

constexpr std::string_view kSendFunction = "CORE::TestInterface::sendAsserts";

// How long a thread whose failure stops the process waits for the one that is sending. Only so long, because that one
// may in turn wait for a lock of the logger's that this thread holds.
constexpr absl::Duration kPatience = absl::Seconds(1);

uint32_t abortBitOf(FailureKind kind) {
    return kind == FailureKind::Assertion ? TestAction::AssertAbort : TestAction::AlertAbort;
}

uint32_t sendBitOf(FailureKind kind) {
    return kind == FailureKind::Assertion ? TestAction::AssertSend : TestAction::AlertSend;
}

uint32_t backtraceBitOf(FailureKind kind) {
    return kind == FailureKind::Assertion ? TestAction::AssertBacktrace : TestAction::AlertBacktrace;
}

// The executable's file name: what stands for "server" in the reports.
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

void tellDates(const AssertExclusions& exclusions, const char* path) {
    constexpr std::string_view kFunction = "CORE::TestInterface::loadExclusions";
    if (exclusions.malformedDates() > 0)
        MLOG(Warn, kFunction, "'%s': %d entries ignored, their dates are not YYYY-MM-DD", path,
             exclusions.malformedDates());
    if (exclusions.passedDates() > 0)
        MLOG(Info, kFunction, "'%s': %d entries ignored, this build is later than their dates", path,
             exclusions.passedDates());
}

bool negated(bool* flag) {
    return !*flag;
}

} // namespace

TestInterface::Clock TestInterface::Clock::ofSystem() {
    return {&monotonicMilliseconds, [] { return systemNow().seconds; }};
}

TestInterface::TestInterface(Clock clock)
    : m_clock(std::move(clock)), m_exclusions(buildDate()), m_source(sourceOfThisProcess()) {}

TestInterface& TestInterface::instance() {
    // Never destroyed: checks fail in static destructors, too.
    static TestInterface& instance = *new TestInterface;
    return instance;
}

bool TestInterface::loadIni() {
    TestSettings settings;
    TestSettingsParser parser(&settings);
    const auto take = [&parser](std::string_view line) { parser.takeLine(line); };
    if (!readSettingsFile(kSettingsFile, take) && !readSettingsFile(kOtherSettingsFile, take)) return false;
    Assert::setLevel(settings.assertLevel);
    const absl::MutexLock lock(&m_mutex);
    m_settings = std::move(settings);
    m_settingsFound = true;
    m_addressRefused = false;
    m_retryMs = 0;
    m_nextSendMs = 0;
    return true;
}

bool TestInterface::loadExclusions() {
    AssertExclusions exclusions(buildDate());
    const auto take = [&exclusions](std::string_view line) { exclusions.takeLine(line); };
    const char* path = kExclusionsFile;
    if (!readSettingsFile(path, take)) {
        path = kOtherExclusionsFile;
        if (!readSettingsFile(path, take)) return false;
    }
    exclusions.finish();
    tellDates(exclusions, path);
    const absl::MutexLock lock(&m_mutex);
    m_exclusions = std::move(exclusions);
    m_exclusionsFound = true;
    return true;
}

void TestInterface::readMissingFiles() {
    bool settingsFound = false;
    bool exclusionsFound = false;
    {
        const absl::MutexLock lock(&m_mutex);
        settingsFound = m_settingsFound;
        exclusionsFound = m_exclusionsFound;
    }
    if (!settingsFound) loadIni();
    if (!exclusionsFound) loadExclusions();
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
    return (m_settings.actionFlags & abortBitOf(kind)) != 0;
}

size_t TestInterface::recordCount() const {
    const absl::MutexLock lock(&m_mutex);
    return m_records.size();
}

void TestInterface::report(const Failure& failure) {
    const bool isTraced = wantsTrace(failure);
    if (!take(failure, isTraced, isTraced ? trace() : std::string()))
        MLOG(Warn, kSendFunction, "%u places with failures wait for their report, further ones are not kept",
             kMaxRecords);
    send(aborts(failure.kind) ? Pass::All : Pass::Due);
}

void TestInterface::sendPending() {
    send(Pass::All);
}

TestInterface::Record* TestInterface::find(const Failure& failure) {
    const auto found = std::find_if(m_records.begin(), m_records.end(),
                                    [&failure](const Record& record) { return record.isOf(failure); });
    return found == m_records.end() ? nullptr : &*found;
}

// Null when there is no room.
TestInterface::Record* TestInterface::recordOf(const Failure& failure) {
    if (Record* record = find(failure)) return record;
    if (m_records.size() >= kMaxRecords) {
        const auto reported = std::find_if(m_records.begin(), m_records.end(),
                                           [](const Record& record) { return record.reported == record.occurrences; });
        if (reported == m_records.end()) return nullptr;
        m_records.erase(reported);
    }
    Record record;
    record.kind = failure.kind;
    record.file = failure.file;
    record.line = failure.line;
    record.condition = failure.condition;
    record.level = failure.level;
    m_records.push_back(std::move(record));
    return &m_records.back();
}

// A trace costs a thousand times what a failure does, so a record has one, made while it is going to be sent.
bool TestInterface::wantsTrace(const Failure& failure) {
    const absl::MutexLock lock(&m_mutex);
    const uint32_t wanted = sendBitOf(failure.kind) | backtraceBitOf(failure.kind);
    if ((m_settings.actionFlags & wanted) != wanted) return false;
    const Record* record = find(failure);
    return record == nullptr || !record->traced;
}

// A function of its own, so that every backtrace begins with the same line.
[[gnu::noinline]] std::string TestInterface::trace() {
    const std::string text = StackTrace().toText();
    return framedBacktrace(text);
}

// False for the first failure that finds no room.
bool TestInterface::take(const Failure& failure, bool isTraced, std::string backtrace) {
    const absl::MutexLock lock(&m_mutex);
    Record* record = recordOf(failure);
    if (record == nullptr) return std::exchange(m_toldFull, true);
    ++record->occurrences;
    record->message = failure.message;
    if (isTraced && !record->traced) {
        record->traced = true;
        record->backtrace = std::move(backtrace);
    }
    return true;
}

// One thread sends. What others take in meanwhile it sends as well, so they need not wait; but one that is about to
// stop the process does.
void TestInterface::send(Pass pass) {
    std::vector<Record> records;
    {
        const absl::MutexLock lock(&m_mutex);
        if (pass == Pass::All) m_mutex.AwaitWithTimeout(absl::Condition(&negated, &m_sending), kPatience);
        if (m_sending) return;
        records = takeUnreported(pass);
        if (records.empty()) return;
        m_sending = true;
    }
    while (true) {
        const bool allSent = sendEach(records);
        const absl::MutexLock lock(&m_mutex);
        records = allSent ? takeUnreported(Pass::Due) : std::vector<Record>();
        if (!records.empty()) continue;
        m_sending = false;
        return;
    }
}

std::vector<TestInterface::Record> TestInterface::takeUnreported(Pass pass) {
    std::vector<Record> records;
    if (m_addressRefused) return records;
    const uint64_t nowMs = m_clock.monotonicMs();
    if (pass == Pass::Due && nowMs < m_nextSendMs) return records;
    for (Record& record : m_records) {
        if (record.reported == record.occurrences) continue;
        if ((m_settings.actionFlags & sendBitOf(record.kind)) == 0) continue;
        if (pass == Pass::Due && nowMs < record.nextReportMs) continue;
        record.nextReportMs = nowMs + kReportPeriodMs;
        records.push_back(record);
    }
    return records;
}

// False when the collector could not be reached: the rest is kept for the next time.
bool TestInterface::sendEach(const std::vector<Record>& records) {
    if (!openSocket()) {
        MasterLogger::logText(LogLevel::Warn, "TestInterface:sendAsserts - failed creating socket");
        settle(records.front(), Sent::No);
        return false;
    }
    for (const Record& record : records) {
        const Sent sent = sendOne(record);
        settle(record, sent);
        if (sent == Sent::No) return false;
    }
    return true;
}

TestInterface::Sent TestInterface::sendOne(const Record& record) {
    std::string document;
    TestSettings settings;
    {
        const absl::MutexLock lock(&m_mutex);
        settings = m_settings;
        m_source.product = escapedXml(productIdentifier());
        const FailureReport report{
            .kind = record.kind,
            .file = record.file,
            .line = record.line,
            .condition = record.condition,
            .message = record.message,
            .backtrace = record.backtrace,
            .level = record.level,
            .count = record.occurrences - record.reported,
            .total = record.occurrences,
            .utc = m_clock.utcSeconds(),
            .aborts = (settings.actionFlags & abortBitOf(record.kind)) != 0,
        };
        document = assertDocument(report, m_source);
    }
    if (document.size() > kMaxDatagram) {
        if (!record.toldTooLarge)
            MLOG(Warn, kSendFunction, "report of %s:%d not sent, its %u bytes are more than a datagram holds",
                 record.file, record.line, document.size());
        return Sent::TooLarge;
    }
    sockaddr_in collector;
    if (!SetSockAddr(settings.sendAddress, static_cast<uint16_t>(settings.sendPort), collector)) {
        MLOG(Warn, kSendFunction, "nothing is sent to '%s'", settings.sendAddress);
        const absl::MutexLock lock(&m_mutex);
        // Unless other settings have come meanwhile.
        m_addressRefused = settings.sendAddress == m_settings.sendAddress;
        return Sent::No;
    }
    return m_socket.send(collector, document.data(), static_cast<uint32_t>(document.size())) ? Sent::Yes : Sent::No;
}

void TestInterface::settle(const Record& record, Sent sent) {
    const absl::MutexLock lock(&m_mutex);
    if (sent == Sent::No) {
        m_retryMs = m_retryMs == 0 ? kFirstRetryMs : std::min(2 * m_retryMs, kLongestRetryMs);
        m_nextSendMs = m_clock.monotonicMs() + m_retryMs;
        return;
    }
    if (sent == Sent::Yes) {
        m_retryMs = 0;
        m_nextSendMs = 0;
    }
    Record* kept = find({record.kind, record.condition, record.file, record.line, record.level, record.message});
    if (kept == nullptr) return;
    kept->reported = record.occurrences;
    kept->toldTooLarge |= sent == Sent::TooLarge;
}

bool TestInterface::openSocket() {
    return m_socket.isOpen() || m_socket.open(SocketFlag::NonBlocking, kAnyAddress);
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
    // A failure is logged there.
    static_cast<void>(socket.send(kLoopbackAddress, port, document.data(), static_cast<uint32_t>(document.size())));
}

namespace {

constexpr AssertPolicy kPolicy{
    .isExcluded = [](std::string_view file, int32_t line) { return TestInterface::instance().isExcluded(file, line); },
    .report =
        [](AssertPolicy::Kind /*kind*/, const char* expression, std::string_view file, int32_t line, int32_t level,
           const std::string& message) {
            TestInterface::instance().report({FailureKind::Assertion, expression, file, line, level, message});
        },
    .stopsProcess = [] { return TestInterface::instance().aborts(FailureKind::Assertion); },
};

// Before main, so that checks failing in later initialisers are already judged by the files.
[[maybe_unused]] const bool g_installed = [] {
    TestInterface::instance().readMissingFiles();
    setAssertPolicy(&kPolicy);
    return true;
}();

} // namespace
} // namespace NS_CORE
