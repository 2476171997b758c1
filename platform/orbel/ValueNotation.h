// The framework's value notation: the text form in which values print and parse back,
// e.g.  Value('GenericAgent::OptionTableIndex', ** {'agentName': 'bgpd', 'key': 'asn'})
//
// Parsers work on a position and an end inside an Orbel::String:
//
//   Orbel::String8::IteratorConst pos = text.begin(), end = text.end();
//   Orbel::needString(pos, end, " Value");        // a blank matches optional white space
//   Orbel::String name = Orbel::sequenceToValue(pos, end);   // a quoted string
//
// Quoted strings use single quotes; inside them \\ \' \" \n \r \t and \xHH escapes are
// understood, and quoteBytes() escapes every byte outside printable ASCII as \xHH, so
// any byte string round-trips.
#pragma once

#include "Exception.h"
#include "String.h"

#include <cstdint>

namespace Orbel {

// Skips optional white space. Returns the new position.
void skipSpace(String8::IteratorConst& pos, const String8::IteratorConst& end) noexcept;

// Matches `pattern` at pos and moves past it; each blank in the pattern stands for
// optional white space. Throws RangeException naming the pattern and what was found.
void needString(String8::IteratorConst& pos, const String8::IteratorConst& end, const char* pattern);

// Parses one quoted string at pos (leading white space skipped) and moves past it.
// Throws RangeException on a missing quote, an unterminated string or a bad escape.
String sequenceToValue(String8::IteratorConst& pos, const String8::IteratorConst& end);

// The quoted text form of bytes, the inverse of sequenceToValue.
String quoteBytes(std::string_view bytes);

// printf-style formatting into a String.
String format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Re-raises an attribute's parse failure with the attribute's name in front of its text,
// keeping the exception's kind (a RangeException stays one).
[[noreturn]] void rethrowFromDeserializeAttr(const Exception& e, const String& attribute);

// Parses a T at pos with T's parsing constructor; a failure is re-raised naming attribute.
template <class T>
T deserializeAttr(String8::IteratorConst& pos, const String8::IteratorConst& end, const String& attribute) {
    try {
        return T(pos, end);
    } catch (const Exception& e) {
        rethrowFromDeserializeAttr(e, attribute);
    }
}

// Throws the "junk at column" error for text left after a complete value.
[[noreturn]] void throwJunk(const String8& text, String8::IteratorConst pos);

// Parses a whole text as a T: T's parsing constructor from the start; anything left after
// it raises RangeException "junk at column <offset> deserializing <text>". The second
// argument only selects the type.
template <class T>
T strepToValue(const String8& text, const T* = nullptr) {
    String8::IteratorConst pos = text.begin();
    const String8::IteratorConst end = text.end();
    T value(pos, end);
    if (pos != end) throwJunk(text, pos);
    return value;
}

} // namespace Orbel
