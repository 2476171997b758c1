// "Did you mean": the known option closest to a mistyped one.
//
//   Agent::closestOption("--lisen", {"listen", "log", "state"})   // "--listen"
//
// Close means at most two single-character edits (insert, delete, replace, swap of two
// neighbours), or at most a third of the name for long names; a name that is a unique
// prefix of a known one is close too. Ties go to the first known name.
#pragma once

#include <string>
#include <vector>

namespace Agent {

// given: what was typed ("--lisen" or "--lisen=x"); known: long option names without dashes.
// Returns "--NAME", or an empty string when nothing is close.
std::string closestOption(const std::string& given, const std::vector<std::string>& known);

} // namespace Agent
