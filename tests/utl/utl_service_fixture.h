#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_service.h"

namespace NS_UTL {

// Everything that a host says, log records and status reports, in the one order in which it was said.
class Journal {
public:
    void add(std::string entry) {
        const std::lock_guard lock(m_mutex);
        m_entries.push_back(std::move(entry));
    }
    std::vector<std::string> entries() const {
        const std::lock_guard lock(m_mutex);
        return m_entries;
    }
    void clear() {
        const std::lock_guard lock(m_mutex);
        m_entries.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_entries;
};

class JournalLogImpl : public NS_CORE::LogImpl {
public:
    explicit JournalLogImpl(Journal& journal) : m_journal(journal) {}
    void log(uint32_t /*level*/, uint32_t /*threadNumber*/, const NS_CORE::LevelEntry& entry,
             uint8_t /*implementationBits*/, const char* text, size_t textLength) override {
        m_journal.add(entry.name + std::string(" ") + std::string(text, textLength));
    }

private:
    Journal& m_journal;
};

// A host whose log goes to the journal instead of its file, in front of a manager that agrees to everything.
class ServiceTest : public testing::Test {
protected:
    using Lines = std::vector<std::string>;

    static constexpr const char* kName = "quorkeri_test_service";

    ~ServiceTest() override {
        Service::clearInstance();
        NS_CORE::MasterLogger::setImplementation(nullptr);
    }

    Service& makeHost(Service::RunCallback run, Service::StopCallback stop) {
        m_host = std::make_unique<Service>("", kName, "Test Service", m_logs.file(""), "service.log", std::move(run),
                                           std::move(stop));
        NS_CORE::MasterLogger::setImplementation(std::make_unique<JournalLogImpl>(m_journal));
        ServiceManagerCalls calls = ServiceManagerCalls::platform();
        calls.runDispatcher = [](const char* name) {
            std::thread manager([name] {
                std::string word = name;
                char* argv[] = {word.data(), nullptr};
                Service::serviceMain(1, argv);
            });
            manager.join();
            return true;
        };
        calls.registerControlHandler = [](const char*) -> void* {
            static int handle;
            return &handle;
        };
        calls.setStatus = [this](void*, const ServiceStatus& status) { m_journal.add(reportText(status)); };
        m_host->setServiceManager(std::move(calls));
        return *m_host;
    }

    // A run callback that only leaves its trace in the journal.
    Service::RunCallback journalled(const std::string& entry, int result = 0) {
        return [=, this](int, char**) {
            m_journal.add(entry);
            return result;
        };
    }

    static std::string reportText(const ServiceStatus& status) {
        std::string text = "report";
        for (const uint32_t field :
             {status.serviceType, status.currentState, status.controlsAccepted, status.win32ExitCode,
              status.serviceSpecificExitCode, status.checkPoint, status.waitHint})
            text += ' ' + std::to_string(field);
        return text;
    }

    // As the process's entry would call it.
    int run(std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        return m_host->run(static_cast<int>(words.size()), argv.data());
    }

    static constexpr const char* kStartPending = "report 16 2 5 0 0 0 0";
    static constexpr const char* kRunning = "report 16 4 5 0 0 0 0";
    static constexpr const char* kStopPending = "report 16 3 5 0 0 0 0";
    static constexpr const char* kStopped = "report 16 1 5 0 0 0 0";

    test::TempDir m_logs;
    test::HookRecorder m_hook;
    Journal m_journal;
    std::unique_ptr<Service> m_host;
};

} // namespace NS_UTL
