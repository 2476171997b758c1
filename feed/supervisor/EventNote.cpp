#include "EventNote.h"

namespace Feed {

std::string encodeNote(const EventNote& n) {
    switch (n.kind) {
        case EventNote::Kind::process:
            return "process\n" + n.group + "\n" + n.name;
        case EventNote::Kind::group:
            return "group\n" + n.group;
        case EventNote::Kind::tick:
            return "tick";
        case EventNote::Kind::hello:
            return "hello";
        case EventNote::Kind::bye:
            return "bye";
    }
    return {};
}

std::optional<EventNote> decodeNote(std::string_view d) {
    EventNote n;
    if (d == "tick") {
        n.kind = EventNote::Kind::tick;
        return n;
    }
    if (d == "hello") {
        n.kind = EventNote::Kind::hello;
        return n;
    }
    if (d == "bye") {
        n.kind = EventNote::Kind::bye;
        return n;
    }
    std::size_t nl = d.find('\n');
    if (nl == std::string_view::npos) return std::nullopt;
    std::string_view kind = d.substr(0, nl);
    std::string_view rest = d.substr(nl + 1);
    if (kind == "group") {
        if (rest.empty() || rest.find('\n') != std::string_view::npos) return std::nullopt;
        n.kind = EventNote::Kind::group;
        n.group = rest;
        return n;
    }
    if (kind == "process") {
        std::size_t nl2 = rest.find('\n');
        if (nl2 == std::string_view::npos || nl2 == 0 || nl2 + 1 == rest.size()) return std::nullopt;
        std::string_view name = rest.substr(nl2 + 1);
        if (name.find('\n') != std::string_view::npos) return std::nullopt;
        n.kind = EventNote::Kind::process;
        n.group = rest.substr(0, nl2);
        n.name = name;
        return n;
    }
    return std::nullopt;
}

std::map<std::string, std::string> eventTokens(std::string_view line) {
    std::map<std::string, std::string> out;
    std::size_t nl = line.find('\n');
    if (nl != std::string_view::npos) line = line.substr(0, nl);
    while (!line.empty()) {
        std::size_t sp = line.find(' ');
        std::string_view token = line.substr(0, sp);
        std::size_t colon = token.find(':');
        if (colon != std::string_view::npos && colon > 0)
            out.insert_or_assign(std::string(token.substr(0, colon)), std::string(token.substr(colon + 1)));
        if (sp == std::string_view::npos) break;
        line.remove_prefix(sp + 1);
    }
    return out;
}

std::optional<EventNote> noteForEvent(std::string_view eventName, std::string_view payload) {
    EventNote n;
    if (eventName.starts_with("TICK_")) {
        n.kind = EventNote::Kind::tick;
        return n;
    }
    bool process = eventName.starts_with("PROCESS_STATE_");
    bool group = eventName == "PROCESS_GROUP_ADDED" || eventName == "PROCESS_GROUP_REMOVED";
    if (!process && !group) return std::nullopt;
    auto tokens = eventTokens(payload);
    auto g = tokens.find("groupname");
    if (g == tokens.end() || g->second.empty()) return std::nullopt;
    n.group = g->second;
    if (group) {
        n.kind = EventNote::Kind::group;
        return n;
    }
    auto p = tokens.find("processname");
    if (p == tokens.end() || p->second.empty()) return std::nullopt;
    n.kind = EventNote::Kind::process;
    n.name = p->second;
    return n;
}

} // namespace Feed
