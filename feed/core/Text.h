// Small text rules the launcher sources share: a comma-separated list of name patterns as
// an operator writes it, and a value cut to what the model holds without splitting a UTF-8
// character.
//
//   Feed::patternList("ssh*, getty@*", "unit patterns");   // {"ssh*", "getty@*"}
//   Feed::cutToBytes(description, GenericAgent::AgentVal::maxLength);
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Feed {

// C's white space: blank, tab, newline, carriage return, form feed, vertical tab.
bool isSpace(char c);

// s without leading and trailing white space.
std::string_view trimmed(std::string_view s);

// The items of a comma-separated list, each trimmed. Throws std::invalid_argument
// ("WHAT: the list is empty", "WHAT: item 2 is empty") for an empty list or item.
std::vector<std::string> patternList(std::string_view patterns, std::string_view what);

// s cut to at most max bytes without splitting a UTF-8 character.
std::string cutToBytes(std::string s, std::size_t max);

} // namespace Feed
