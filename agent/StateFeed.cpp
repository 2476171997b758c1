// The launcher state feed (see StateFeed.h).
//
// Parsing uses RapidJSON's SAX reader with a handler that is a small state machine over
// the file's fixed shape: it validates while it reads (types, unknown members, lengths,
// UTF-8), detects duplicate keys through the maps it fills, and stops at the first
// problem, so a file is never held as a document tree. Chosen by measurement
// (bench/statefeed_parse.cpp): parsing and validating a 100,000-row file (2,000 daemons
// x 25 options + 25 data, 5.9 MB indented) into a LauncherState, best of 15 runs, -O2,
// on the 2-core development machine while other builds ran:
//   RapidJSON SAX (this file) ......................  51 ms
//   nlohmann::json SAX, filling the same maps ......... 100 ms
//   nlohmann::json tree, then walked and checked ...... 152 ms
// The ratios held over repeated runs. simdjson, tried the same way, was about a third
// faster than RapidJSON, but it reports no position for an error, which refusals here
// name; filling the maps takes much of the time whatever the parser. A reload of the same
// file with one value changed costs about 1.1 times the parse (each daemon is hashed and
// dropped as soon as it has been read unless it changed, so the file is never held whole),
// and applying the difference on the loop well under a millisecond (a first load of all
// 100,000 rows: about 180 ms).
#include "agent/StateFeed.h"

#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

// Header-only: nothing to link, no library for the package to depend on.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <fcntl.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace Agent {
// The allocator of the reader's stack: RapidJSON's CrtAllocator under a type of its own,
// so that the stack's Reserve can be replaced for this reader alone (below).
struct ReaderStackAllocator : rapidjson::CrtAllocator {};
} // namespace Agent

// RapidJSON 1.1.0's Stack<A>::Reserve tests `stackTop_ + n > stackEnd_`. The stack is
// allocated on its first push, so on the first string of every file both pointers are
// null and that sum is arithmetic on a null pointer: undefined behaviour, which UBSan
// reports. This replacement compares the room left instead, which is also defined for an
// empty stack (null - null is 0). The reader pushes only chars on its stack.
RAPIDJSON_NAMESPACE_BEGIN
namespace internal {
template <>
template <>
inline void Stack<Agent::ReaderStackAllocator>::Reserve<char>(size_t count) {
    if (RAPIDJSON_UNLIKELY(count > static_cast<size_t>(stackEnd_ - stackTop_))) Expand<char>(count);
}
} // namespace internal
RAPIDJSON_NAMESPACE_END

namespace Agent {

namespace {

using Reader = rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, ReaderStackAllocator>;

constexpr std::size_t maxNameBytes = 32;     // the daemon-name index of the tables
constexpr std::size_t maxKeyBytes = 64;      // the key index of the option and data tables
constexpr std::size_t maxValueBytes = GenericAgent::AgentVal::maxLength;
static_assert(maxKeyBytes <= GenericAgent::AgentKey::maxLength);
constexpr std::size_t shownBytes = 64;       // bytes of a name or key quoted in a message
// Zero bytes after the text: the reader's SSE2 scanning loads aligned 16-byte blocks and
// may look up to 15 bytes past the terminating zero.
constexpr std::size_t padBytes = 16;
constexpr int rearmMillis = 200;
// How long the worker waits after a reload before it hands released memory back.
constexpr int releaseMillis = 1000;

std::string prefix(const std::string& file) { return "state file " + file + ": "; }

// Length of the well-formed UTF-8 sequence at p (at most n bytes available), 0 when there
// is none: no overlong forms, no surrogates, nothing above U+10FFFF.
std::size_t utf8Sequence(const unsigned char* p, std::size_t n) {
    unsigned char c = p[0];
    if (c < 0x80) return 1;
    auto cont = [&](std::size_t i) { return i < n && (p[i] & 0xC0) == 0x80; };
    if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
    if (c >= 0xE0 && c <= 0xEF) {
        if (!cont(1) || !cont(2)) return 0;
        if (c == 0xE0 && p[1] < 0xA0) return 0;   // overlong
        if (c == 0xED && p[1] >= 0xA0) return 0;  // surrogate
        return 3;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        if (!cont(1) || !cont(2) || !cont(3)) return 0;
        if (c == 0xF0 && p[1] < 0x90) return 0;   // overlong
        if (c == 0xF4 && p[1] >= 0x90) return 0;  // above U+10FFFF
        return 4;
    }
    return 0;
}

bool validUtf8(std::string_view s) {
    auto p = reinterpret_cast<const unsigned char*>(s.data());
    std::size_t n = s.size(), i = 0;
    while (i < n) {
        // ASCII runs, eight bytes at a time.
        while (i + 8 <= n) {
            std::uint64_t w;
            std::memcpy(&w, p + i, 8);
            if (w & 0x8080808080808080ull) break;
            i += 8;
        }
        if (i >= n) break;
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        std::size_t len = utf8Sequence(p + i, n - i);
        if (len == 0) return false;
        i += len;
    }
    return true;
}

// A name or key for a message: quoted, escaped so that it stays on one line and shows
// bytes that are not UTF-8, cut after shownBytes bytes.
std::string quote(std::string_view s) {
    static const char hex[] = "0123456789abcdef";
    std::string out = "\"";
    auto p = reinterpret_cast<const unsigned char*>(s.data());
    std::size_t i = 0;
    while (i < s.size()) {
        if (i >= shownBytes) {
            out += "...";
            break;
        }
        unsigned char c = p[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else if (std::size_t len = c >= 0x80 ? utf8Sequence(p + i, s.size() - i) : 0; len > 0) {
            out.append(s.data() + i, len);
            i += len;
            continue;
        } else {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        }
        ++i;
    }
    out += '"';
    return out;
}

// 1-based line and column (in bytes) of offset.
std::pair<std::size_t, std::size_t> lineColumn(std::string_view text, std::size_t offset) {
    offset = std::min(offset, text.size());
    std::size_t line = 1, lineStart = 0;
    for (std::size_t i = 0; i < offset; ++i) {
        if (text[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    }
    return {line, offset - lineStart + 1};
}

std::string errnoText(int e) { return std::error_code(e, std::generic_category()).message(); }

// What the reader handed over, for "must be X, not Y".
enum class Kind { null, boolean, number, string, object, array };

const char* kindText(Kind k) {
    switch (k) {
    case Kind::null: return "null";
    case Kind::boolean: return "a boolean";
    case Kind::number: return "a number";
    case Kind::string: return "a string";
    case Kind::object: return "an object";
    case Kind::array: return "an array";
    }
    return "?";
}

// Called for each daemon as soon as the file has described it whole (in file order). When
// it returns false the daemon's keys are dropped at once and only its name stays in the
// parsed state, which keeps telling a daemon that appears twice: a reload that compares
// each daemon with the last file as it goes keeps only those that changed, and never holds
// the whole file at once.
using DaemonSieve = std::function<bool(const std::string& name, const DaemonState& daemon)>;

// The SAX handler: a state machine over the file's shape. Each method returns false (and
// leaves a message in error) to stop the reader at the first problem.
class StateHandler {
public:
    using Ch = char;

    StateHandler(const rapidjson::StringStream& stream, std::string_view text, const DaemonSieve* sieve)
        : stream_(stream), text_(text), sieve_(sieve) {}

    LauncherState state;
    std::string error;   // without the file prefix; empty while all is well

    bool Null() { return wrongType(Kind::null); }
    bool Bool(bool b) {
        if (at_ != At::flagValue) return wrongType(Kind::boolean);
        (inConfig_ ? daemon_->enabled : daemon_->running) = b;
        at_ = At::section;
        return true;
    }
    // With kParseNumbersAsStringsFlag every number arrives here.
    bool RawNumber(const Ch*, rapidjson::SizeType, bool) { return wrongType(Kind::number); }
    bool Int(int) { return wrongType(Kind::number); }
    bool Uint(unsigned) { return wrongType(Kind::number); }
    bool Int64(std::int64_t) { return wrongType(Kind::number); }
    bool Uint64(std::uint64_t) { return wrongType(Kind::number); }
    bool Double(double) { return wrongType(Kind::number); }

    bool String(const Ch* s, rapidjson::SizeType n, bool) {
        if (at_ != At::value) return wrongType(Kind::string);
        std::string_view v(s, n);
        if (v.size() > maxValueBytes)
            return fail(where() + ": value is " + std::to_string(v.size()) + " bytes, more than " +
                        std::to_string(maxValueBytes));
        if (!validUtf8(v)) return fail(where() + ": value is not valid UTF-8");
        value_->assign(v);
        at_ = At::keys;
        return true;
    }

    bool StartObject() {
        switch (at_) {
        case At::root: at_ = At::top; return true;
        case At::daemonsValue: at_ = At::daemons; return true;
        case At::daemonValue: at_ = At::daemon; return true;
        case At::sectionValue:
            seenFlag_ = seenKeys_ = false;
            at_ = At::section;
            return true;
        case At::keysValue: at_ = At::keys; return true;
        default: return wrongType(Kind::object);
        }
    }

    bool Key(const Ch* s, rapidjson::SizeType n, bool) {
        std::string_view k(s, n);
        switch (at_) {
        case At::top:
            if (k != "daemons") return unknownMember("top level", k, "\"daemons\"");
            if (seenDaemons_) return fail("top level: member \"daemons\" appears twice");
            seenDaemons_ = true;
            at_ = At::daemonsValue;
            return true;
        case At::daemons: return daemonName(k);
        case At::daemon:
            if (k == "config" || k == "status") {
                inConfig_ = k == "config";
                bool& has = inConfig_ ? daemon_->hasConfig : daemon_->hasStatus;
                if (has) return fail("daemon " + quote(*name_) + ": member " + quote(k) + " appears twice");
                has = true;
                at_ = At::sectionValue;
                return true;
            }
            return unknownMember("daemon " + quote(*name_), k, "\"config\" or \"status\"");
        case At::section: {
            const char* flagName = inConfig_ ? "enabled" : "running";
            const char* keysName = inConfig_ ? "options" : "data";
            bool flag = k == flagName;
            if (!flag && k != keysName)
                return unknownMember(section(), k, "\"" + std::string(flagName) + "\" or \"" + keysName + "\"");
            bool& seen = flag ? seenFlag_ : seenKeys_;
            if (seen) return fail(section() + ": member " + quote(k) + " appears twice");
            seen = true;
            member_ = flag ? flagName : keysName;
            at_ = flag ? At::flagValue : At::keysValue;
            return true;
        }
        case At::keys: return keyName(k);
        default: return false;   // the reader hands keys only inside objects
        }
    }

    bool EndObject(rapidjson::SizeType) {
        switch (at_) {
        case At::top:
            if (!seenDaemons_) return fail("top level: no \"daemons\" member");
            at_ = At::done;
            return true;
        case At::daemons: at_ = At::top; return true;
        case At::daemon:
            if (sieve_ && !(*sieve_)(*name_, *daemon_)) {
                daemon_->options.clear();
                daemon_->data.clear();
            }
            at_ = At::daemons;
            return true;
        case At::section: at_ = At::daemon; return true;
        case At::keys: at_ = At::section; return true;
        default: return false;
        }
    }

    bool StartArray() { return wrongType(Kind::array); }
    bool EndArray(rapidjson::SizeType) { return false; }   // never reached: arrays are refused

    // The reader stopped at a number too large for a double: refused as the number it is.
    void numberTooBig() { wrongType(Kind::number); }

private:
    enum class At {
        root,          // before the top-level value
        top,           // in the top-level object
        daemonsValue,  // "daemons": ?
        daemons,       // in the daemons object
        daemonValue,   // "name": ?
        daemon,        // in a daemon
        sectionValue,  // "config" / "status": ?
        section,       // in a config or status
        flagValue,     // "enabled" / "running": ?
        keysValue,     // "options" / "data": ?
        keys,          // in options or data
        value,         // "key": ?
        done,
    };

    // Records the message with the line the reader is on (inside a string or number, the
    // reader works on a copy of the stream, so this is where the token starts).
    bool fail(std::string message) {
        std::size_t line = lineColumn(text_, stream_.Tell()).first;
        error = std::move(message) + " (line " + std::to_string(line) + ")";
        return false;
    }

    std::string section() const { return "daemon " + quote(*name_) + (inConfig_ ? " config" : " status"); }

    // The value being read, for messages.
    std::string where() const {
        switch (at_) {
        case At::root: return "top level";
        case At::daemonsValue: return "\"daemons\"";
        case At::daemonValue: return "daemon " + quote(*name_);
        case At::sectionValue: return section();
        case At::flagValue:
        case At::keysValue: return section() + " \"" + member_ + "\"";
        case At::value: return "daemon " + quote(*name_) + (inConfig_ ? " option " : " data ") + quote(*key_);
        default: return "top level";
        }
    }

    bool wrongType(Kind found) {
        const char* expected = at_ == At::flagValue ? "must be true or false"
                               : at_ == At::value   ? "value must be a string"
                                                    : "must be an object";
        return fail(where() + ": " + expected + ", not " + kindText(found));
    }

    bool unknownMember(const std::string& in, std::string_view k, const std::string& expected) {
        return fail(in + ": unknown member " + quote(k) + ", expected " + expected);
    }

    bool daemonName(std::string_view k) {
        auto shown = [&] { return "daemon " + quote(k); };
        if (k.empty()) return fail(shown() + ": name is empty");
        if (k.size() > maxNameBytes)
            return fail(shown() + ": name is " + std::to_string(k.size()) + " bytes, more than " +
                        std::to_string(maxNameBytes));
        if (!validUtf8(k)) return fail(shown() + ": name is not valid UTF-8");
        auto [it, fresh] = state.try_emplace(std::string(k));
        if (!fresh) return fail(shown() + ": appears twice");
        name_ = &it->first;
        daemon_ = &it->second;
        at_ = At::daemonValue;
        return true;
    }

    bool keyName(std::string_view k) {
        auto shown = [&] { return "daemon " + quote(*name_) + (inConfig_ ? " option " : " data ") + quote(k); };
        if (k.size() > maxKeyBytes)
            return fail(shown() + ": key is " + std::to_string(k.size()) + " bytes, more than " +
                        std::to_string(maxKeyBytes));
        if (!validUtf8(k)) return fail(shown() + ": key is not valid UTF-8");
        auto& keys = inConfig_ ? daemon_->options : daemon_->data;
        std::size_t before = keys.size();
        // Files usually list keys in order: the hint makes that case cheap.
        auto it = keys.try_emplace(keys.end(), std::string(k));
        if (keys.size() == before) return fail(shown() + ": appears twice");
        key_ = &it->first;
        value_ = &it->second;
        at_ = At::value;
        return true;
    }

    const rapidjson::StringStream& stream_;
    std::string_view text_;
    const DaemonSieve* sieve_;
    At at_ = At::root;
    bool seenDaemons_ = false;
    const std::string* name_ = nullptr;
    DaemonState* daemon_ = nullptr;
    bool inConfig_ = false;
    bool seenFlag_ = false;
    bool seenKeys_ = false;
    const char* member_ = "";
    const std::string* key_ = nullptr;
    std::string* value_ = nullptr;
};

// Parses text[0, n), which must be followed by at least padBytes zero bytes.
LauncherState parsePadded(const char* text, std::size_t n, const std::string& file,
                          const DaemonSieve* sieve = nullptr) {
    std::string_view view(text, n);
    if (view.find_first_not_of(" \t\n\r") == std::string_view::npos) throw StateError(prefix(file) + "file is empty");
    if (const void* zero = std::memchr(text, 0, n)) {
        auto [line, column] = lineColumn(view, static_cast<std::size_t>(static_cast<const char*>(zero) - text));
        throw StateError(prefix(file) + "line " + std::to_string(line) + ", column " + std::to_string(column) +
                         ": invalid JSON: NUL byte");
    }
    rapidjson::StringStream stream(text);
    StateHandler handler(stream, view, sieve);
    Reader reader;
    rapidjson::ParseResult result = reader.Parse<rapidjson::kParseNumbersAsStringsFlag>(stream, handler);
    if (result) return std::move(handler.state);
    if (result.Code() == rapidjson::kParseErrorNumberTooBig) handler.numberTooBig();
    if (!handler.error.empty()) throw StateError(prefix(file) + handler.error);
    auto [line, column] = lineColumn(view, result.Offset());
    std::string what;
    if (result.Code() == rapidjson::kParseErrorStringEscapeInvalid && result.Offset() < n &&
        static_cast<unsigned char>(text[result.Offset()]) < 0x20) {
        what = "control character in a string (write it as an escape)";
    } else {
        what = rapidjson::GetParseError_En(result.Code());
        if (!what.empty() && what.back() == '.') what.pop_back();
        if (!what.empty() && what[0] >= 'A' && what[0] <= 'Z') what[0] = static_cast<char>(what[0] - 'A' + 'a');
    }
    throw StateError(prefix(file) + "line " + std::to_string(line) + ", column " + std::to_string(column) +
                     ": invalid JSON: " + what);
}

// Reads the file at path into a buffer ending in padBytes zero bytes; length gets the
// file's size. shown names the file in messages.
std::string readPadded(const std::string& path, const std::string& shown, std::size_t& length) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) throw StateError(prefix(shown) + "cannot open: " + errnoText(errno));
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat st{};
    if (::fstat(fd, &st) != 0) throw StateError(prefix(shown) + "cannot read: " + errnoText(errno));
    if (!S_ISREG(st.st_mode)) throw StateError(prefix(shown) + "not a regular file");
    if (static_cast<std::uint64_t>(st.st_size) > maxStateFileBytes)
        throw StateError(prefix(shown) + "file is " + std::to_string(st.st_size) + " bytes, more than " +
                         std::to_string(maxStateFileBytes));

    std::string buffer;
    buffer.resize(static_cast<std::size_t>(st.st_size) + 4096);
    std::size_t got = 0;
    for (;;) {
        if (got == buffer.size()) {
            if (got > maxStateFileBytes)   // it grew while being read
                throw StateError(prefix(shown) + "file is more than " + std::to_string(maxStateFileBytes) + " bytes");
            buffer.resize(std::min(buffer.size() * 2, maxStateFileBytes + 1));
        }
        ssize_t r = ::read(fd, buffer.data() + got, buffer.size() - got);
        if (r < 0) {
            if (errno == EINTR) continue;
            throw StateError(prefix(shown) + "cannot read: " + errnoText(errno));
        }
        if (r == 0) break;
        got += static_cast<std::size_t>(r);
    }
    if (got > maxStateFileBytes)
        throw StateError(prefix(shown) + "file is more than " + std::to_string(maxStateFileBytes) + " bytes");
    if (got == 0) throw StateError(prefix(shown) + "file is empty");
    buffer.resize(got);
    buffer.append(padBytes, '\0');
    length = got;
    return buffer;
}

LauncherState loadPadded(const std::string& path, const std::string& shown, const DaemonSieve* sieve = nullptr) {
    std::size_t length = 0;
    std::string buffer = readPadded(path, shown, length);
    return parsePadded(buffer.data(), length, shown, sieve);
}

// ---------------------------------------------------------------------------------------

using Keys = std::map<std::string, std::string>;

SectionChange diffSection(bool hadBefore, bool flagBefore, const Keys& keysBefore, bool hasAfter, bool flagAfter,
                          const Keys& keysAfter) {
    static const Keys none;
    SectionChange c;
    c.before = hadBefore;
    c.after = hasAfter;
    if (hasAfter && (!hadBefore || flagBefore != flagAfter)) c.flag = flagAfter;
    const Keys& a = hadBefore ? keysBefore : none;
    const Keys& b = hasAfter ? keysAfter : none;
    auto i = a.begin();
    auto j = b.begin();
    while (i != a.end() || j != b.end()) {
        if (j == b.end() || (i != a.end() && i->first < j->first)) {
            c.keys.push_back({i->first, std::nullopt, !i->second.empty(), false});
            ++i;
        } else if (i == a.end() || j->first < i->first) {
            c.keys.push_back({j->first, j->second, false, !j->second.empty()});
            ++j;
        } else {
            if (i->second != j->second) c.keys.push_back({j->first, j->second, !i->second.empty(), !j->second.empty()});
            ++i;
            ++j;
        }
    }
    return c;
}

DaemonChange diffDaemon(const std::string& name, const DaemonState* before, const DaemonState* after) {
    static const DaemonState absent;
    const DaemonState& a = before ? *before : absent;
    const DaemonState& b = after ? *after : absent;
    DaemonChange d;
    d.name = name;
    d.before = before != nullptr;
    d.after = after != nullptr;
    d.config = diffSection(a.hasConfig, a.enabled, a.options, b.hasConfig, b.enabled, b.options);
    d.status = diffSection(a.hasStatus, a.running, a.data, b.hasStatus, b.running, b.data);
    return d;
}

std::string plural(std::size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

// ---------------------------------------------------------------------------------------
// The two sides of a daemon: config (enabled row, option rows) and status (running row,
// data rows). One mechanism below serves both.

struct ConfigSide {
    using Object = GenericAgent::Config;
    static const SectionChange& of(const DaemonChange& d) { return d.config; }
    static Orbel::Ptr<Object> make(const Orbel::String& name) { return Object::configFactory(name); }
    static void flagIs(Object& o, bool f) { o.enabledIs(f); }
    static void valueIs(Object& o, const Orbel::String& k, const std::string& v) {
        o.optionIs(GenericAgent::AgentKey(k), GenericAgent::AgentVal(Orbel::String(v)));
    }
    static void valueDel(Object& o, const Orbel::String& k) { o.optionDel(GenericAgent::AgentKey(k)); }
    static const GenericAgent::AgentValMap& values(const Object& o) { return o.options(); }
    static void flagRowIs(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::Ptr<Object>& o) {
        m.enabledTableIs(n, o);
    }
    static void flagRowDel(GenericAgent::DaemonMib& m, const Orbel::String& n) { m.enabledTableDel(n); }
    static void keyRowIs(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::String& k,
                         const Orbel::Ptr<Object>& o) {
        m.optionTableIs(GenericAgent::OptionTableIndex(n, k), o);
    }
    static void keyRowDel(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::String& k) {
        m.optionTableDel(GenericAgent::OptionTableIndex(n, k));
    }
};

struct StatusSide {
    using Object = GenericAgent::Status;
    static const SectionChange& of(const DaemonChange& d) { return d.status; }
    static Orbel::Ptr<Object> make(const Orbel::String& name) { return Object::statusFactory(name); }
    static void flagIs(Object& o, bool f) { o.runningIs(f); }
    static void valueIs(Object& o, const Orbel::String& k, const std::string& v) {
        o.dataIs(GenericAgent::AgentKey(k), GenericAgent::AgentVal(Orbel::String(v)));
    }
    static void valueDel(Object& o, const Orbel::String& k) { o.dataDel(GenericAgent::AgentKey(k)); }
    static const GenericAgent::AgentValMap& values(const Object& o) { return o.data(); }
    static void flagRowIs(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::Ptr<Object>& o) {
        m.runningTableIs(n, o);
    }
    static void flagRowDel(GenericAgent::DaemonMib& m, const Orbel::String& n) { m.runningTableDel(n); }
    static void keyRowIs(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::String& k,
                         const Orbel::Ptr<Object>& o) {
        m.dataTableIs(GenericAgent::DataTableIndex(n, k), o);
    }
    static void keyRowDel(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::String& k) {
        m.dataTableDel(GenericAgent::DataTableIndex(n, k));
    }
};

// The key as the object stores it: a row made with it shares the key's bytes with the
// object's entry instead of holding a copy of its own.
template <class Side>
Orbel::String storedKey(const typename Side::Object& object, const Orbel::String& key) {
    const GenericAgent::AgentValMap& values = Side::values(object);
    auto it = values.find(GenericAgent::AgentKey(key));
    return it == values.end() ? key : Orbel::String(it->first);
}

// A new object filled from a section that appears.
template <class Side>
Orbel::Ptr<typename Side::Object> makeFilled(const Orbel::String& name, const SectionChange& s) {
    auto object = Side::make(name);
    Side::flagIs(*object, s.flag.value_or(false));
    for (const KeyChange& k : s.keys)
        if (k.value) Side::valueIs(*object, Orbel::String(k.key), *k.value);
    return object;
}

template <class Side>
void addKeyRows(GenericAgent::DaemonMib& m, const Orbel::String& name, const SectionChange& s,
                const Orbel::Ptr<typename Side::Object>& object) {
    for (const KeyChange& k : s.keys)
        if (k.rowAfter) Side::keyRowIs(m, name, storedKey<Side>(*object, Orbel::String(k.key)), object);
}

template <class Side>
void removeKeyRows(GenericAgent::DaemonMib& m, const Orbel::String& name, const SectionChange& s) {
    for (const KeyChange& k : s.keys)
        if (k.rowBefore) Side::keyRowDel(m, name, Orbel::String(k.key));
}

// One side of a daemon that stays: in place, or with its object (and flag row) replaced.
template <class Side>
void applySide(GenericAgent::DaemonMib& m, const Orbel::String& name, const SectionChange& s,
               Orbel::Ptr<typename Side::Object>& object) {
    if (s.before && s.after) {
        if (s.flag) Side::flagIs(*object, *s.flag);
        for (const KeyChange& k : s.keys) {
            Orbel::String key(k.key);
            if (k.rowBefore && !k.rowAfter) Side::keyRowDel(m, name, key);
            if (k.value) Side::valueIs(*object, key, *k.value);
            else Side::valueDel(*object, key);
            if (!k.rowBefore && k.rowAfter) Side::keyRowIs(m, name, storedKey<Side>(*object, key), object);
        }
    } else if (s.after) {
        object = makeFilled<Side>(name, s);
        Side::flagRowDel(m, name);
        Side::flagRowIs(m, name, object);
        addKeyRows<Side>(m, name, s, object);
    } else if (s.before) {
        removeKeyRows<Side>(m, name, s);
        Side::flagRowDel(m, name);
        Side::flagRowIs(m, name, nullptr);
        object = nullptr;
    }
}

// ---------------------------------------------------------------------------------------
// The worker's digest of a daemon: XXH3's 128-bit hash of its flags byte (hasConfig 1,
// enabled 2, hasStatus 4, running 8), then of the options and then the data, each as a
// count followed by its keys in order, every key and value as a length and its bytes.
// Equal daemons have equal digests; the lengths make the encoding unambiguous, so two
// daemons that differ share a digest only by a 128-bit collision.

struct Digest {
    std::uint64_t low = 0;
    std::uint64_t high = 0;
    friend bool operator==(const Digest&, const Digest&) = default;
};

// The encoding is written into `scratch` (kept by the caller from daemon to daemon, so
// that it is allocated once) and hashed in one call: many small streaming updates of the
// hash cost more than copying the bytes once.
Digest digest(const DaemonState& d, std::string& scratch) {
    auto putLength = [&scratch](std::uint64_t n) { scratch.append(reinterpret_cast<const char*>(&n), sizeof n); };
    scratch.clear();
    scratch += static_cast<char>((d.hasConfig ? 1 : 0) | (d.enabled ? 2 : 0) | (d.hasStatus ? 4 : 0) | (d.running ? 8 : 0));
    for (const Keys* keys : {&d.options, &d.data}) {
        putLength(keys->size());
        for (const auto& [k, v] : *keys) {
            putLength(k.size());
            scratch += k;
            putLength(v.size());
            scratch += v;
        }
    }
    const XXH128_hash_t h = XXH3_128bits(scratch.data(), scratch.size());
    return {h.low64, h.high64};
}

// Hands memory that the allocator holds free back to the system: a big state parsed and
// released leaves pages behind in the allocator's arenas (the worker's among them) that it
// would otherwise keep resident until the next reload reuses them.
void releaseFreeMemory() {
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

// A difference this big leaves enough released memory behind to be worth handing back.
constexpr std::size_t bigDifferenceKeys = 1024;

std::size_t keysIn(const StateDiff& diff) {
    std::size_t n = 0;
    for (const DaemonChange& d : diff.daemons) n += 1 + d.config.keys.size() + d.status.keys.size();
    return n;
}

} // namespace

LauncherState parseState(std::string_view json, const std::string& fileName) {
    std::string buffer;
    buffer.reserve(json.size() + padBytes);
    buffer.append(json);
    buffer.append(padBytes, '\0');
    return parsePadded(buffer.data(), json.size(), fileName);
}

LauncherState loadStateFile(const std::string& path) { return loadPadded(path, path); }

// ---------------------------------------------------------------------------------------

StateDiff diffStates(const LauncherState& from, const LauncherState& to) {
    StateDiff diff;
    auto i = from.begin();
    auto j = to.begin();
    while (i != from.end() || j != to.end()) {
        if (j == to.end() || (i != from.end() && i->first < j->first)) {
            diff.daemons.push_back(diffDaemon(i->first, &i->second, nullptr));
            ++i;
        } else if (i == from.end() || j->first < i->first) {
            diff.daemons.push_back(diffDaemon(j->first, nullptr, &j->second));
            ++j;
        } else {
            if (!(i->second == j->second)) {
                DaemonChange d = diffDaemon(i->first, &i->second, &j->second);
                if (!d.config.empty() || !d.status.empty()) diff.daemons.push_back(std::move(d));
            }
            ++i;
            ++j;
        }
    }
    return diff;
}

StateDiff::Counts StateDiff::counts() const {
    Counts c;
    for (const DaemonChange& d : daemons) {
        for (const SectionChange* s : {&d.config, &d.status}) {
            if (!d.before || !d.after) {
                for (const KeyChange& k : s->keys) (d.after ? c.rowsAdded : c.rowsRemoved) += k.rowAfter || k.rowBefore;
                continue;
            }
            if (s->before != s->after) {
                ++c.rowsAdded;     // the enabled/running row, made again
                ++c.rowsRemoved;
            } else if (s->flag) {
                ++c.inPlace;
            }
            for (const KeyChange& k : s->keys) {
                if (k.rowBefore && !k.rowAfter) ++c.rowsRemoved;
                else if (!k.rowBefore && k.rowAfter) ++c.rowsAdded;
                else if (s->before && s->after) ++c.inPlace;
            }
        }
        if (!d.before) {
            ++c.daemonsAdded;
            c.rowsAdded += 2;      // enabled and running
        } else if (!d.after) {
            ++c.daemonsRemoved;
            c.rowsRemoved += 2;
        }
    }
    return c;
}

std::size_t StateDiff::changes() const {
    Counts c = counts();
    return c.rowsAdded + c.rowsRemoved + c.inPlace;
}

std::string StateDiff::summary() const {
    Counts c = counts();
    return "applied " + plural(c.rowsAdded + c.rowsRemoved + c.inPlace, "change", "changes") + " (daemons: " +
           std::to_string(c.daemonsAdded) + " added, " + std::to_string(c.daemonsRemoved) + " removed; rows: " +
           std::to_string(c.rowsAdded) + " added, " + std::to_string(c.rowsRemoved) + " removed; " +
           std::to_string(c.inPlace) + " changed in place)";
}

// ---------------------------------------------------------------------------------------

StateApplier::StateApplier(Orbel::Ptr<GenericAgent::DaemonMib> mib) : mib_(std::move(mib)) {
    if (!mib_) throw std::invalid_argument("StateApplier: null DaemonMib");
}

Orbel::Ptr<GenericAgent::Config> StateApplier::config(const std::string& daemon) const {
    auto it = objects_.find(daemon);
    return it == objects_.end() ? nullptr : it->second.config;
}

Orbel::Ptr<GenericAgent::Status> StateApplier::status(const std::string& daemon) const {
    auto it = objects_.find(daemon);
    return it == objects_.end() ? nullptr : it->second.status;
}

void StateApplier::apply(const StateDiff& diff) {
    applied_.reset();
    for (const DaemonChange& d : diff.daemons) applyDaemon(d);
}

DaemonState StateApplier::readBack(const Objects& o) {
    DaemonState d;
    auto copy = [](const GenericAgent::AgentValMap& values, Keys& keys) {
        for (const auto& [k, v] : values) keys.emplace(std::string(k.view()), std::string(v.view()));
    };
    if (o.config) {
        d.hasConfig = true;
        d.enabled = o.config->enabled();
        copy(o.config->options(), d.options);
    }
    if (o.status) {
        d.hasStatus = true;
        d.running = o.status->running();
        copy(o.status->data(), d.data);
    }
    return d;
}

std::optional<DaemonState> StateApplier::served(const std::string& daemon) const {
    auto it = objects_.find(daemon);
    if (it == objects_.end()) return std::nullopt;
    return readBack(it->second);
}

const LauncherState& StateApplier::applied() const {
    if (applied_) return *applied_;
    LauncherState state;
    for (const auto& [name, o] : objects_) state.emplace_hint(state.end(), name, readBack(o));
    applied_ = std::move(state);
    return *applied_;
}

void StateApplier::applyDaemon(const DaemonChange& d) {
    GenericAgent::DaemonMib& m = *mib_;
    if (!d.before) {
        if (!d.after) return;
        if (objects_.count(d.name)) throw std::logic_error("StateApplier: daemon " + quote(d.name) + " is served already");
        Objects& o = objects_[d.name];
        o.name = Orbel::String(d.name);
        if (d.config.after) o.config = makeFilled<ConfigSide>(o.name, d.config);
        if (d.status.after) o.status = makeFilled<StatusSide>(o.name, d.status);
        m.enabledTableIs(o.name, o.config);
        addKeyRows<ConfigSide>(m, o.name, d.config, o.config);
        m.runningTableIs(o.name, o.status);
        addKeyRows<StatusSide>(m, o.name, d.status, o.status);
        return;
    }
    auto it = objects_.find(d.name);
    if (it == objects_.end()) throw std::logic_error("StateApplier: daemon " + quote(d.name) + " is not served");
    Objects& o = it->second;
    if (!d.after) {
        removeKeyRows<ConfigSide>(m, o.name, d.config);
        m.enabledTableDel(o.name);
        removeKeyRows<StatusSide>(m, o.name, d.status);
        m.runningTableDel(o.name);
        objects_.erase(it);
        return;
    }
    applySide<ConfigSide>(m, o.name, d.config, o.config);
    applySide<StatusSide>(m, o.name, d.status, o.status);
}

// ---------------------------------------------------------------------------------------

namespace {

int makeEventFd() {
    int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    return fd;
}

void signalFd(int fd) {
    std::uint64_t one = 1;
    while (::write(fd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void drainFd(int fd) {
    std::uint64_t v;
    while (::read(fd, &v, sizeof v) > 0 || errno == EINTR) {
    }
}

} // namespace

StateFeed::StateFeed(std::string path, Orbel::Ptr<GenericAgent::DaemonMib> mib, Log log)
    : path_(std::move(path)), applier_(std::move(mib)), log_(std::move(log)) {
    std::filesystem::path p = std::filesystem::absolute(std::filesystem::path(path_));
    name_ = p.filename().string();
    dir_ = p.parent_path().string();
    if (name_.empty() || name_ == "." || name_ == "..")
        throw std::invalid_argument("StateFeed: " + path_ + " does not name a file");
    eventFd_ = makeEventFd();
    try {
        stopFd_ = makeEventFd();
    } catch (...) {
        ::close(eventFd_);
        throw;
    }
}

StateFeed::~StateFeed() {
    stop();
    ::close(stopFd_);
    ::close(eventFd_);
}

void StateFeed::loadInitial() {
    if (worker_.joinable()) throw std::logic_error("StateFeed::loadInitial: the feed is started");
    LauncherState next;
    try {
        next = loadStateFile(path_);
    } catch (const StateError&) {
        ++refused_;
        throw;
    }
    ++reloads_;
    StateDiff diff = diffStates(applier_.applied(), next);
    applier_.apply(diff);
    ++applies_;
    remember(next);
    loadedInitial_ = true;
    const std::string line = prefix(path_) + diff.summary();
    next = LauncherState();
    diff = StateDiff();
    releaseFreeMemory();
    if (log_) log_(line);
}

void StateFeed::remember(const LauncherState& accepted) {
    workerState_.clear();
    workerState_.reserve(accepted.size());
    std::string scratch;
    for (const auto& [name, d] : accepted) {
        const Digest h = digest(d, scratch);
        workerState_.push_back({name, h.low, h.high});
    }
}

StateDiff StateFeed::diffServed(Changed& changed) const {
    StateDiff diff;
    for (auto& [name, after] : changed) {
        const std::optional<DaemonState> before = applier_.served(name);
        DaemonChange d = diffDaemon(name, before ? &*before : nullptr, after ? &*after : nullptr);
        if (d.before != d.after || !d.config.empty() || !d.status.empty()) diff.daemons.push_back(std::move(d));
        after.reset();
    }
    return diff;
}

void StateFeed::start() {
    if (worker_.joinable()) throw std::logic_error("StateFeed::start: already started");
    inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotifyFd_ < 0) throw std::system_error(errno, std::generic_category(), "inotify_init1");
    drainFd(stopFd_);
    try {
        worker_ = std::thread([this] { run(); });
    } catch (...) {
        ::close(inotifyFd_);
        inotifyFd_ = -1;
        throw;
    }
}

void StateFeed::stop() {
    if (!worker_.joinable()) return;
    signalFd(stopFd_);
    worker_.join();
    ::close(inotifyFd_);
    inotifyFd_ = -1;
    drainFd(stopFd_);
}

std::size_t StateFeed::handleEvent() {
    drainFd(eventFd_);
    std::size_t applied = 0;
    std::size_t keys = 0;
    for (;;) {
        Item item;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (queue_.empty()) break;
            item = std::move(queue_.front());
            queue_.pop_front();
        }
        if (item.changed) {
            const StateDiff diff = diffServed(*item.changed);
            item.changed.reset();
            if (!diff.empty()) {
                applier_.apply(diff);
                ++applies_;
                ++applied;
                keys += keysIn(diff);
                if (log_) log_(prefix(path_) + diff.summary());
            }
        }
        if (!item.line.empty() && log_) log_(item.line);
    }
    if (keys >= bigDifferenceKeys) releaseFreeMemory();
    return applied;
}

std::string StateFeed::removedLine() const {
    return prefix(path_) + "removed; serving the last state until it is written again";
}

void StateFeed::post(Item item) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back(std::move(item));
    }
    signalFd(eventFd_);
}

void StateFeed::reload(IfMissing ifMissing) {
    std::string file = dir_ + "/" + name_;
    if (ifMissing != IfMissing::refuse) {
        struct stat st{};
        if (::stat(file.c_str(), &st) != 0 && errno == ENOENT) {
            if (ifMissing == IfMissing::sayRemoved) post({std::nullopt, removedLine()});
            return;
        }
    }
    // Each daemon is compared with its digest in the last accepted file as soon as it has
    // been read; only those that differ keep their keys (see DaemonSieve).
    std::vector<DaemonDigest> digests;   // in file order until sorted below
    std::vector<bool> differs;
    std::string scratch;
    const DaemonSieve sieve = [&](const std::string& name, const DaemonState& d) {
        const Digest h = digest(d, scratch);
        auto known = std::lower_bound(workerState_.begin(), workerState_.end(), name,
                                      [](const DaemonDigest& e, const std::string& n) { return e.name < n; });
        const bool same = known != workerState_.end() && known->name == name && Digest{known->low, known->high} == h;
        digests.push_back({name, h.low, h.high});
        differs.push_back(!same);
        return !same;
    };
    LauncherState next;
    try {
        next = loadPadded(file, path_, &sieve);
    } catch (const StateError& e) {
        ++refused_;
        post({std::nullopt, e.what()});
        return;
    }
    ++reloads_;
    std::vector<std::size_t> order(digests.size());
    for (std::size_t k = 0; k < order.size(); ++k) order[k] = k;
    std::sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) { return digests[x].name < digests[y].name; });
    // Both the file's daemons (next, by name) and the last file's digests are in name order.
    Changed changed;
    auto i = workerState_.begin();
    for (auto& [name, d] : next) {
        for (; i != workerState_.end() && i->name < name; ++i) changed.emplace_back(std::move(i->name), std::nullopt);
        if (i != workerState_.end() && i->name == name) ++i;
    }
    for (; i != workerState_.end(); ++i) changed.emplace_back(std::move(i->name), std::nullopt);
    std::vector<DaemonDigest> sorted;
    sorted.reserve(order.size());
    for (std::size_t k : order) {
        if (differs[k]) changed.emplace_back(digests[k].name, std::move(next.at(digests[k].name)));
        sorted.push_back(std::move(digests[k]));
    }
    std::sort(changed.begin(), changed.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
    workerState_ = std::move(sorted);
    // What the parse took is free again once the worker is idle (see run()).
    next = LauncherState();
    releasePending_ = true;
    if (changed.empty()) return;
    post({std::move(changed), std::string()});
}

void StateFeed::run() {
    constexpr std::uint32_t fileEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;
    constexpr std::uint32_t selfEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
    int wd = -1;
    bool lost = false;   // the directory could not be watched, and that was said
    bool first = true;
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
        try {
            bool load = false, gone = false;
            if (wd < 0) {
                wd = ::inotify_add_watch(inotifyFd_, dir_.c_str(), fileEvents | selfEvents | IN_ONLYDIR | IN_EXCL_UNLINK);
                if (wd >= 0) {
                    if (lost) post({std::nullopt, prefix(path_) + "watching directory " + dir_ + " again"});
                    if (first) reload(loadedInitial_ ? IfMissing::sayRemoved : IfMissing::refuse);
                    else if (lost) reload(IfMissing::ignore);
                    lost = false;
                } else if (!lost) {
                    post({std::nullopt, prefix(path_) + "cannot watch directory " + dir_ + ": " + errnoText(errno) +
                                            "; serving the last state, trying again every " +
                                            std::to_string(rearmMillis) + " ms"});
                    lost = true;
                }
                first = false;
            }
            pollfd fds[2] = {{stopFd_, POLLIN, 0}, {inotifyFd_, POLLIN, 0}};
            int n = ::poll(fds, 2, wd < 0 ? rearmMillis : releasePending_ ? releaseMillis : -1);
            if (n < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
            if (fds[0].revents) return;
            if (n == 0 && releasePending_) {
                // Idle since the last reload: hand what it released back to the system. Reloads
                // in quick succession reuse that memory instead.
                releaseFreeMemory();
                releasePending_ = false;
            }
            if (n <= 0 || !fds[1].revents) continue;
            for (;;) {
                ssize_t got = ::read(inotifyFd_, buffer, sizeof buffer);
                if (got <= 0) break;
                for (char* p = buffer; p < buffer + got;) {
                    auto* ev = reinterpret_cast<inotify_event*>(p);
                    p += sizeof(inotify_event) + ev->len;
                    if (ev->mask & IN_Q_OVERFLOW) {
                        load = true;
                        continue;
                    }
                    if (wd < 0 || ev->wd != wd) continue;   // a watch given up already
                    if (ev->mask & selfEvents) {
                        if (!(ev->mask & IN_IGNORED)) ::inotify_rm_watch(inotifyFd_, wd);
                        wd = -1;
                        post({std::nullopt, prefix(path_) + "directory " + dir_ +
                                                " is gone; serving the last state, looking for it every " +
                                                std::to_string(rearmMillis) + " ms"});
                        lost = true;
                        continue;
                    }
                    if (ev->len == 0 || name_ != ev->name) continue;
                    if (ev->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) {
                        load = true;
                        gone = false;
                    } else if (ev->mask & (IN_DELETE | IN_MOVED_FROM)) {
                        gone = true;
                        load = false;
                    }
                }
            }
            // When the directory went, the reload follows once it is back.
            if (wd < 0) continue;
            if (load) reload(IfMissing::refuse);
            else if (gone) post({std::nullopt, removedLine()});
        } catch (const std::exception& e) {
            post({std::nullopt, prefix(path_) + "reload failed: " + e.what()});
            // Do not spin on a persistent failure.
            pollfd stop = {stopFd_, POLLIN, 0};
            if (::poll(&stop, 1, rearmMillis) > 0) return;
        }
    }
}

} // namespace Agent
