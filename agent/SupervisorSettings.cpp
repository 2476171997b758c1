#include "SupervisorSettings.h"

#include <fstream>
#include <stdexcept>

namespace Agent {

namespace {

constexpr std::chrono::seconds defaultRefresh{10};

std::string addressOf(const SourceSettings& s) {
    return s.supervisorAddress.empty() ? std::string(Feed::SupervisorSource::defaultSocket) : s.supervisorAddress;
}

std::string patternsOf(const SourceSettings& s) {
    return s.units.empty() ? std::string("*") : s.units;
}

} // namespace

std::pair<std::string, std::string> readSupervisorAuth(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("supervisord credentials " + path + ": cannot read it");
    std::string line;
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0)
        throw std::runtime_error("supervisord credentials " + path + ": line 1 is not USER:PASSWORD");
    return {line.substr(0, colon), line.substr(colon + 1)};
}

Feed::SupervisorSource::Options supervisorOptions(const SourceSettings& s) {
    Feed::SupervisorSource::Options o;
    o.endpoint = Feed::SupervisorEndpoint::parse(addressOf(s));
    try {
        o.patterns = Feed::parseProcessPatterns(patternsOf(s));
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument("units " + s.units + ": " + e.what());
    }
    o.eventsSocket = s.supervisorEvents;
    std::chrono::seconds refresh = s.refresh.value_or(defaultRefresh);
    o.refresh = refresh.count() > 0 ? std::chrono::milliseconds(refresh) : o.fullRead; // 0: the full reads only
    o.command = s.serveCommandLines ? Feed::CommandShown::whole : Feed::CommandShown::executable;
    if (!s.supervisorAuth.empty()) std::tie(o.username, o.password) = readSupervisorAuth(s.supervisorAuth);
    return o;
}

std::string supervisorText(const SourceSettings& s) {
    std::string text = "supervisord (";
    try {
        text += Feed::SupervisorEndpoint::parse(addressOf(s)).text();
    } catch (const std::invalid_argument&) {
        text += addressOf(s);
    }
    text += ", processes " + patternsOf(s);
    if (s.supervisorEvents.empty()) {
        std::chrono::seconds refresh = s.refresh.value_or(defaultRefresh);
        text += ", polled every " + std::to_string(refresh.count() > 0 ? refresh.count() : 60) + " s";
    } else {
        text += ", events " + s.supervisorEvents;
    }
    return text + ")";
}

} // namespace Agent
