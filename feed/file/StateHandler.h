// The state file's SAX handler, for StateReader.cpp only: a state machine over the file's
// fixed shape that validates while RapidJSON reads (types, unknown members, lengths,
// UTF-8), fills the daemons' maps, and stops at the first problem, or skips one daemon and
// reads on when the caller collects skipped daemons.
#pragma once

#include "StateReader.h"

#include "GenericAgent/GenericAgentSnmp.h"

#include <rapidjson/reader.h>

#include <algorithm>
#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace Feed::stateFile {

constexpr std::size_t maxNameBytes = GenericAgent::maxDaemonNameBytes;
constexpr std::size_t maxKeyBytes = GenericAgent::maxIndexKeyBytes;
constexpr std::size_t maxValueBytes = GenericAgent::AgentVal::maxLength;
static_assert(maxKeyBytes <= GenericAgent::AgentKey::maxLength);
// 1-based line and column (in bytes) of offset.
inline std::pair<std::size_t, std::size_t> lineColumn(std::string_view text, std::size_t offset) {
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

// What the reader handed over, for "must be X, not Y".
enum class Kind { null, boolean, number, string, object, array };

inline const char* kindText(Kind k) {
    switch (k) {
        case Kind::null:
            return "null";
        case Kind::boolean:
            return "a boolean";
        case Kind::number:
            return "a number";
        case Kind::string:
            return "a string";
        case Kind::object:
            return "an object";
        case Kind::array:
            return "an array";
    }
    return "?";
}

// The SAX handler: a state machine over the file's shape. Each method returns false (and
// leaves a message in error) to stop the reader at the first problem.
class StateHandler {
public:
    using Ch = char;

    StateHandler(const rapidjson::StringStream& stream, std::string_view text, const DaemonSieve* sieve,
                 SkippedDaemons* skipped)
        : stream_(stream), text_(text), sieve_(sieve), skipped_(skipped) {}

    LauncherState state;
    std::string error; // without the file prefix; empty while all is well

    bool Null() { return skipping_ ? skipScalar() : wrongType(Kind::null); }
    bool Bool(bool b) {
        if (skipping_) return skipScalar();
        if (at_ != At::flagValue) return wrongType(Kind::boolean);
        (inConfig_ ? daemon_->enabled : daemon_->running) = b;
        at_ = At::section;
        return true;
    }
    // With kParseNumbersAsStringsFlag every number arrives here.
    bool RawNumber(const Ch*, rapidjson::SizeType, bool) { return number(); }
    bool Int(int) { return number(); }
    bool Uint(unsigned) { return number(); }
    bool Int64(std::int64_t) { return number(); }
    bool Uint64(std::uint64_t) { return number(); }
    bool Double(double) { return number(); }

    bool String(const Ch* s, rapidjson::SizeType n, bool) {
        if (skipping_) return skipScalar();
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
        ++depth_;
        if (skipping_) return true;
        switch (at_) {
            case At::root:
                at_ = At::top;
                return true;
            case At::daemonsValue:
                at_ = At::daemons;
                return true;
            case At::daemonValue:
                at_ = At::daemon;
                return true;
            case At::sectionValue:
                seenFlag_ = seenKeys_ = false;
                at_ = At::section;
                return true;
            case At::keysValue:
                at_ = At::keys;
                return true;
            default:
                return wrongType(Kind::object);
        }
    }

    bool Key(const Ch* s, rapidjson::SizeType n, bool) {
        if (skipping_) return true;
        std::string_view k(s, n);
        switch (at_) {
            case At::top:
                if (k != "daemons") return unknownMember("top level", k, "\"daemons\"");
                if (seenDaemons_) return fail("top level: member \"daemons\" appears twice");
                seenDaemons_ = true;
                at_ = At::daemonsValue;
                return true;
            case At::daemons:
                return daemonName(k);
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
            case At::keys:
                return keyName(k);
            default:
                return false; // the reader hands keys only inside objects
        }
    }

    bool EndObject(rapidjson::SizeType) {
        --depth_;
        if (skipping_) return skipEnd();
        switch (at_) {
            case At::top:
                if (!seenDaemons_) return fail("top level: no \"daemons\" member");
                at_ = At::done;
                return true;
            case At::daemons:
                at_ = At::top;
                return true;
            case At::daemon:
                if (sieve_ && !(*sieve_)(*name_, *daemon_)) {
                    daemon_->options.clear();
                    daemon_->data.clear();
                }
                at_ = At::daemons;
                return true;
            case At::section:
                at_ = At::daemon;
                return true;
            case At::keys:
                at_ = At::section;
                return true;
            default:
                return false;
        }
    }

    bool StartArray() {
        ++depth_;
        return skipping_ ? true : wrongType(Kind::array);
    }
    // Reached only while a daemon is skipped: elsewhere an array is refused as it starts.
    bool EndArray(rapidjson::SizeType) {
        --depth_;
        return skipping_ ? skipEnd() : false;
    }

    // The reader stopped at a number too large for a double: refused as the number it is,
    // and as a whole (the reader cannot go on past it).
    // Inside a daemon already skipped there is no item to name: the reader's own message.
    void numberTooBig() {
        skipped_ = nullptr;
        if (!skipping_) wrongType(Kind::number);
    }

private:
    enum class At {
        root,         // before the top-level value
        top,          // in the top-level object
        daemonsValue, // "daemons": ?
        daemons,      // in the daemons object
        daemonValue,  // "name": ?
        daemon,       // in a daemon
        sectionValue, // "config" / "status": ?
        section,      // in a config or status
        flagValue,    // "enabled" / "running": ?
        keysValue,    // "options" / "data": ?
        keys,         // in options or data
        value,        // "key": ?
        done,
    };

    // Nesting of objects and arrays: inside the daemons object, inside one daemon.
    static constexpr int daemonsDepth = 2;

    // Records the message with the line the reader is on (inside a string or number, the
    // reader works on a copy of the stream, so this is where the token starts). Inside a
    // daemon, when skipped daemons are collected, the daemon is skipped instead (skip()) and
    // the file read on; elsewhere the reader stops.
    bool fail(std::string message) {
        std::size_t line = lineColumn(text_, stream_.Tell()).first;
        message += " (line " + std::to_string(line) + ")";
        if (skipped_ && inDaemon()) return skip(std::move(message));
        error = std::move(message);
        return false;
    }

    // Between a daemon's name and the end of its value.
    bool inDaemon() const {
        switch (at_) {
            case At::daemons: // a daemon's name refused before it was taken
            case At::daemonValue:
            case At::daemon:
            case At::sectionValue:
            case At::section:
            case At::flagValue:
            case At::keysValue:
            case At::keys:
            case At::value:
                return true;
            default:
                return false;
        }
    }

    // Drops the daemon being read (and an earlier entry of the same name), records why, and
    // passes over what is left of its value. The event that failed has been counted in
    // depth_: a value that was whole at the daemons level (a daemon written as a string)
    // ends the skip at once; a name refused before its value began skips the whole value.
    bool skip(std::string message) {
        std::string name;
        bool indexable = pendingIndexable_;
        if (name_) {
            name = *name_;
            indexable = true;
            state.erase(name);
        } else {
            name = pendingName_;
        }
        skipped_->push_back({name, indexable, std::move(message)});
        if (indexable) skippedNames_.insert(std::move(name));
        const bool valueBegun = at_ != At::daemons;
        name_ = nullptr;
        daemon_ = nullptr;
        at_ = At::daemons;
        skipping_ = !(valueBegun && depth_ == daemonsDepth);
        return true;
    }

    // A scalar while skipping: at the daemons level it is the skipped daemon's whole value.
    bool skipScalar() {
        if (depth_ == daemonsDepth) skipping_ = false;
        return true;
    }

    // The end of an object or array while skipping: back at the daemons level, the skipped
    // daemon's value is over.
    bool skipEnd() {
        if (depth_ == daemonsDepth) skipping_ = false;
        return true;
    }

    bool number() { return skipping_ ? skipScalar() : wrongType(Kind::number); }

    std::string section() const { return "daemon " + quote(*name_) + (inConfig_ ? " config" : " status"); }

    // The value being read, for messages.
    std::string where() const {
        switch (at_) {
            case At::root:
                return "top level";
            case At::daemonsValue:
                return "\"daemons\"";
            case At::daemonValue:
                return "daemon " + quote(*name_);
            case At::sectionValue:
                return section();
            case At::flagValue:
            case At::keysValue:
                return section() + " \"" + member_ + "\"";
            case At::value:
                return "daemon " + quote(*name_) + (inConfig_ ? " option " : " data ") + quote(*key_);
            default:
                return "top level";
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
        pendingName_.assign(k);
        pendingIndexable_ = false;
        name_ = nullptr;
        if (k.empty()) return fail(shown() + ": name is empty");
        if (k.size() > maxNameBytes)
            return fail(shown() + ": name is " + std::to_string(k.size()) + " bytes, more than " +
                        std::to_string(maxNameBytes));
        if (!validUtf8(k)) return fail(shown() + ": name is not valid UTF-8");
        pendingIndexable_ = true;
        auto [it, fresh] = state.try_emplace(std::string(k));
        if (!fresh) {
            // Neither entry is trusted: a skipped daemon is skipped whole.
            name_ = &it->first;
            return fail(shown() + ": appears twice");
        }
        if (skippedNames_.count(std::string(k))) {
            state.erase(it);
            return fail(shown() + ": appears twice");
        }
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
    SkippedDaemons* skipped_;            // null: a bad daemon refuses the file
    std::set<std::string> skippedNames_; // indexable names skipped so far
    std::string pendingName_;            // the daemon name being checked
    bool pendingIndexable_ = false;
    int depth_ = 0;         // objects and arrays open
    bool skipping_ = false; // passing over a skipped daemon's value
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

} // namespace Feed::stateFile
