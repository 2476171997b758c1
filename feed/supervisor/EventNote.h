// What velmar-supervisor-events tells the agent, and how it reads supervisord's event
// listener protocol. Pure functions, shared by the listener program and the source.
//
// supervisord writes to a listener's stdin a header line of key:value tokens
//   ver:3.0 server:supervisor serial:21 pool:velmar pool_serial:10 eventname:PROCESS_STATE_RUNNING len:63
// followed by len bytes of payload, itself key:value tokens on its first line
//   processname:web_0 groupname:web from_state:STARTING pid:2766
// The listener answers READY before each event and "RESULT 2\nOK" after it.
//
// The agent hears one datagram per event on a Unix datagram socket:
//   "process\n<group>\n<name>"   a process changed state
//   "group\n<group>"             a group was added or removed (`supervisorctl update`)
//   "tick"                       supervisord's TICK event: the listener is alive
//   "hello"                      the listener has just started
//   "bye"                        the listener is stopping (supervisord stops or restarts)
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace Feed {

struct EventNote {
    enum class Kind { process, group, tick, hello, bye };
    Kind kind = Kind::hello;
    std::string group; // process, group
    std::string name;  // process

    friend bool operator==(const EventNote&, const EventNote&) = default;
};

// The datagram for a note.
std::string encodeNote(const EventNote& note);
// The note a datagram holds; none for anything else.
std::optional<EventNote> decodeNote(std::string_view datagram);

// The key:value tokens of a line separated by spaces; tokens without a colon are left out.
std::map<std::string, std::string> eventTokens(std::string_view line);

// The note for one event, from its name (the header's eventname) and payload; none for
// an event the agent does not need.
std::optional<EventNote> noteForEvent(std::string_view eventName, std::string_view payload);

} // namespace Feed
