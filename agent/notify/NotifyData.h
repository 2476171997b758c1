// Which data keys a running-change notification carries (--notify-data, velmarNotifyData):
// the values that tell why a daemon stopped, named by the operator, with a default per
// source.
//
//   auto keys = Agent::notifyDataKeys("Result, ExecMainStatus");   // {"Result", "ExecMainStatus"}
//   Agent::defaultNotifyData(true);                                 // "Result,ExecMainCode,ExecMainStatus"
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Agent {

// The keys of a comma-separated list, blanks around each removed, in the order given,
// each once. An empty text (or only blanks) is no key at all. Throws std::invalid_argument
// naming the key that is empty between two commas or longer than the data table's index
// carries (64 bytes).
std::vector<std::string> notifyDataKeys(const std::string& text);

// The list used when the operator names none: systemd's result and exit status for the
// systemd source (why a service stopped); nothing for the others, whose data keys are the
// launcher's own.
std::string defaultNotifyData(bool systemd);

} // namespace Agent
