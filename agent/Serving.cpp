#include "Serving.h"
#include "Served.h"
#include "SupervisorSettings.h"

#include "feed/file/FileSource.h"
#include "feed/systemd/SystemdSource.h"

#include "GenericAgent/GenericAgentSnmp.h"

#include <stdexcept>

#ifndef VELMAR_VERSION
#define VELMAR_VERSION "unknown"
#endif

namespace Agent {

const char* const agentName = "velmar-snmp-agent";
const char* const agentVersion = VELMAR_VERSION;

namespace {

Feed::SystemdSource::Options systemdOptions(const SourceSettings& s) {
    Feed::SystemdSource::Options o;
    o.patterns = Feed::parseUnitPatterns(s.units.empty() ? Feed::defaultUnitPatterns : s.units);
    if (s.refresh) o.refresh = *s.refresh;
    o.busAddress = s.systemBus;
    o.settings.serveCommandLines = s.serveCommandLines;
    return o;
}

std::string unitsText(const SourceSettings& s) {
    return s.units.empty() ? std::string(Feed::defaultUnitPatterns) : s.units;
}

} // namespace

std::unique_ptr<Feed::Source> makeSource(const SourceSettings& s) {
    if (s.supervisor) return std::make_unique<Feed::SupervisorSource>(supervisorOptions(s));
    if (!s.systemd) return std::make_unique<Feed::FileSource>(s.stateFile);
    try {
        return std::make_unique<Feed::SystemdSource>(systemdOptions(s));
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument("units " + s.units + ": " + e.what());
    }
}

std::string sourceText(const SourceSettings& s) {
    if (s.supervisor) return supervisorText(s);
    if (!s.systemd) return "state file " + s.stateFile;
    return "systemd (system bus " + Feed::SystemdSource::busAddressFor(systemdOptions(s)) + ", units " + unitsText(s) +
           ")";
}

std::string servedText(const Feed::StateFeed& feed) {
    std::string text = servedOf(feed).text();
    const Feed::SourceHealth h = feed.source().health();
    if (!h.skippedNote.empty()) text += "; " + h.skippedNote;
    if (!h.connected)
        text += "; not connected to " + (h.launcher.empty() ? std::string("its launcher") : h.launcher) +
                " yet, trying again";
    return text;
}

Serving::Serving(Settings settings, Feed::StateFeed::Log feedLog, Notifier::Log notifyLog)
    : settings_(std::move(settings)), notifyLog_(std::move(notifyLog)), host_(std::move(feedLog)) {}

Serving::~Serving() {
    release();
}

void Serving::loadState() {
    host_.loadState(makeSource(settings_.source));
}

void Serving::loadModule() {
    host_.loadModule(settings_.modulePath, settings_.contexts);
}

void Serving::start(bool activitiesFromSelectLoop) {
    host_.startFeed();
    if (activitiesFromSelectLoop) host_.runActivitiesFromSelectLoop();
    // After the initial load: the state as loaded is what receivers are taken to know.
    if (!notifier_) {
        notifier_ = std::make_unique<Notifier>(host_.mib(), settings_.notify, notifyLog_);
        // The history counts from here on, before each notification, which carries its count.
        if (DaemonHistory* history = host_.history())
            notifier_->historyIs(history, [history](const std::string& daemon) -> std::optional<std::uint32_t> {
                if (const auto* r = history->find(Snmp::String(daemon))) return r->runningChanges;
                return std::nullopt;
            });
        notifier_->dataKeysIs(settings_.notifyData);
        notifier_->start();
    }
}

void Serving::stop() {
    notifier_.reset();
    host_.stopServing();
}

void Serving::release() {
    stop();
    host_.release();
}

const Feed::StateFeed& Serving::feed() const {
    if (!host_.feed()) throw std::logic_error("Serving::feed: no state loaded");
    return *host_.feed();
}

std::string Serving::servingLine(const std::string& where) const {
    return std::string(agentName) + " " + agentVersion + " serving VELMAR-DAEMON-MIB (" + subtreeText() + ") from " +
           sourceText(settings_.source) + " " + where + ": " + servedText(feed());
}

std::string Serving::waitingLine(const std::string& master) const {
    return std::string(agentName) + " " + agentVersion + ": waiting for the master at " + master +
           " to register VELMAR-DAEMON-MIB (" + subtreeText() + ") from " + sourceText(settings_.source) + ": " +
           servedText(feed());
}

std::string Serving::guestServingLine() const {
    std::string contexts;
    for (const auto& c : settings_.contexts) contexts += (contexts.empty() ? "" : ", ") + c;
    std::string from = settings_.source.stateFile;
    if (settings_.source.systemd || settings_.source.supervisor) {
        from = sourceText(settings_.source);
        if (!feed().source().health().connected) from += ", not connected yet, trying again";
    }
    const std::size_t daemons = feed().applied().size();
    return "serving VELMAR-DAEMON-MIB (" + subtreeText() + ") from " + from + " with " + settings_.modulePath +
           (contexts.empty() ? "" : " (also initialised in contexts " + contexts + ")") + ": " +
           std::to_string(daemons) + (daemons == 1 ? " daemon" : " daemons");
}

} // namespace Agent
