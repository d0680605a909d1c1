#include "health/report.h"

#include <string_view>

#include "core/text/core_varargs.h"

namespace health {
namespace {

// Monitoring reads a message up to the first line end or bar, so the text must contain neither.
std::string oneLine(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < ' ') c = ' ';
        if (c == '|') c = '/';
    }
    return text;
}

std::string text(std::string_view value) {
    std::string out = "\"";
    for (const char c : value) {
        if (static_cast<unsigned char>(c) < ' ')
            out += NS_CORE::formatString("\\u%04x", static_cast<unsigned>(c));
        else if (c == '"' || c == '\\')
            out.append({'\\', c});
        else
            out += c;
    }
    return out + '"';
}

std::string member(const char* name, const std::string& value) {
    return text(name) + ": " + value;
}

template <class List, class ToJson>
std::string list(const List& items, ToJson toJson) {
    std::string out = "[";
    for (const auto& item : items) out += (out.size() == 1 ? "" : ", ") + toJson(item);
    return out + "]";
}

std::string object(const std::vector<std::string>& members) {
    std::string out = "{";
    for (const std::string& it : members) out += (out.size() == 1 ? "" : ", ") + it;
    return out + "}";
}

std::string number(uint64_t value) {
    return std::to_string(value);
}

std::string processJson(const Process& process, std::vector<std::string> members = {}) {
    members.insert(members.begin(), {member("pid", number(process.id)), member("program", text(process.image))});
    if (process.started) members.push_back(member("started", text(timeText(process.started))));
    return object(members);
}

std::string companionJson(const Companion& companion) {
    constexpr const char* kOwners[] = {"service", "nobody", "other"};
    return processJson(companion.process, {member("parent", number(companion.process.parentId)),
                                           member("owner", text(kOwners[static_cast<size_t>(companion.owner)]))});
}

std::string holderJson(const PortHolder& holder) {
    constexpr const char* kWho[] = {"child", "orphan", "elsewhere", "foreign", "unknown"};
    return processJson(holder.process, {member("who", text(kWho[static_cast<size_t>(holder.who)]))});
}

std::string libraryJson(const Library& library) {
    constexpr const char* kStates[] = {"same", "differs", "missing in bin", "missing in Keri", "missing"};
    return object(
        {member("name", text(library.name)), member("state", text(kStates[static_cast<size_t>(library.state)]))});
}

std::string findingJson(const Finding& finding) {
    return object({member("name", text(finding.name)), member("severity", text(severityText(finding.severity))),
                   member("text", text(finding.text)), member("cure", text(finding.cure))});
}

const char* stateText(const Registration& registration) {
    switch (registration.answer) {
        case Registration::Answer::NoManager:
            return "no manager";
        case Registration::Answer::Refused:
            return "unknown";
        case Registration::Answer::NotRegistered:
            return "not registered";
        case Registration::Answer::Registered:
            break;
    }
    constexpr const char* kStates[] = {"stopped", "starting", "stopping", "running"};
    return kStates[static_cast<size_t>(registration.state)];
}

} // namespace

std::string lineOf(const Facts& facts, const std::vector<Finding>& findings) {
    std::string line = severityText(worstOf(findings));
    line += ':';
    if (findings.empty() && facts.service)
        line += NS_CORE::formatString(" service process %u has run since %s, with its companion", facts.service->id,
                                      timeText(facts.service->started));
    for (const Finding& finding : findings)
        line += NS_CORE::formatString(" [%s] %s. %s", finding.name, finding.text, finding.cure);
    return oneLine(line) + " | " + figures(facts) + '\n';
}

std::string jsonOf(const Facts& facts, const std::vector<Finding>& findings) {
    const Severity worst = worstOf(findings);
    std::vector<std::string> members = {
        member("status", text(severityText(worst))),
        member("code", std::to_string(exitCode(worst))),
        member("time", text(timeText(facts.now))),
        member("root", text(facts.installation.root)),
        member("findings", list(findings, findingJson)),
        member("state", text(stateText(facts.registration))),
        member("service", facts.service ? processJson(*facts.service) : "null"),
        member("companions", list(facts.companions, companionJson)),
        member("port", facts.portHolders ? list(*facts.portHolders, holderJson) : "null"),
        member("restarts", number(facts.log.restartsLastHour)),
        member("lastLine", facts.log.lastLine ? text(timeText(facts.log.lastLine)) : "null"),
        member("keri", text(facts.keriDirectory)),
        member("libraries", list(facts.libraries, libraryJson)),
        member("crash", facts.crash ? text(timeText(facts.crash->time)) : "null"),
        member("freeBytes", facts.freeBytes ? number(*facts.freeBytes) : "null"),
    };
    return object(members) + '\n';
}

} // namespace health
