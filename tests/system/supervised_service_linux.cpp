#include <signal.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "tests/system/await.h"
#include "tests/system/supervised_service.h"

namespace test {

namespace {

// The UDP datagrams that were sent in this network, which is the tests' own.
long sentDatagrams() {
    std::ifstream in("/proc/self/net/snmp");
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string name;
        long received = 0;
        long noPort = 0;
        long errors = 0;
        long sent = 0;
        // The first line that begins so holds the fields' names.
        if (fields >> name >> received >> noPort >> errors >> sent && name == "Udp:") return sent;
    }
    throw std::runtime_error("/proc/self/net/snmp says nothing about UDP");
}

} // namespace

SupervisedService::SupervisedService(const Installation& installation) : m_installation(installation) {}

SupervisedService::~SupervisedService() = default;

void SupervisedService::start() {
    m_process.reset();
    m_process = std::make_unique<Process>(m_installation.program(), std::vector<std::string>{"service-console"},
                                          m_installation.output());
    m_processId = m_process->id();
    m_installation.awaitLog(line::running);
}

void SupervisedService::requestStop() {
    const long before = sentDatagrams();
    if (::kill(static_cast<pid_t>(processId()), SIGTERM) != 0) throw std::runtime_error("the process is gone");
    // The signal is handled on a thread of the service's own; the datagram is the last that it does.
    if (!await([&] { return sentDatagrams() > before; })) throw std::runtime_error("no stop datagram was sent");
}

bool SupervisedService::hasStopped() {
    return m_process->awaitExit(std::chrono::milliseconds(0)).has_value();
}

void SupervisedService::awaitStopped() {
    const std::optional<int64_t> code = m_process->awaitExit();
    if (!code) throw std::runtime_error("The service did not end");
    if (*code != 0) throw std::runtime_error("The service ended with " + std::to_string(*code));
}

void SupervisedService::kill() {
    m_process->end();
}

std::vector<std::string> SupervisedService::wholeLog(const std::vector<std::string>& between) {
    std::vector<std::string> lines{line::running, line::copying};
    lines.insert(lines.end(), between.begin(), between.end());
    lines.insert(lines.end(), {"UTL::Service::signalHandler - 15", line::stop});
    return lines;
}

} // namespace test
