// The state file reader (see StateReader.h).
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
#include "StateReader.h"

#include "RapidJsonStack.h"
#include "StateHandler.h"
#include "StateFileBytes.h"

#include "GenericAgent/GenericAgentSnmp.h"

#include <rapidjson/error/en.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>
#include <system_error>
#include <utility>

namespace Feed {

namespace {

using namespace stateFile;
using Reader = rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, ReaderStackAllocator>;

// Zero bytes after the text: the reader's SSE2 scanning loads aligned 16-byte blocks and
// may look up to 15 bytes past the terminating zero.
constexpr std::size_t padBytes = 16;

std::string prefix(const std::string& file) {
    return "state file " + file + ": ";
}

// Parses text[0, n), which must be followed by at least padBytes zero bytes.
LauncherState parsePadded(const char* text, std::size_t n, const std::string& file, const DaemonSieve* sieve,
                          SkippedDaemons* skipped) {
    std::string_view view(text, n);
    if (view.find_first_not_of(" \t\n\r") == std::string_view::npos) throw StateError(prefix(file) + "file is empty");
    if (view.substr(0, 3) == "\xEF\xBB\xBF")
        throw StateError(prefix(file) +
                         "starts with a UTF-8 byte-order mark (EF BB BF), which JSON does not allow: "
                         "write the file without it");
    if (const void* zero = std::memchr(text, 0, n)) {
        auto [line, column] = lineColumn(view, static_cast<std::size_t>(static_cast<const char*>(zero) - text));
        throw StateError(prefix(file) + "line " + std::to_string(line) + ", column " + std::to_string(column) +
                         ": invalid JSON: NUL byte");
    }
    rapidjson::StringStream stream(text);
    SkippedDaemons found;
    StateHandler handler(stream, view, sieve, skipped ? &found : nullptr);
    Reader reader;
    rapidjson::ParseResult result = reader.Parse<rapidjson::kParseNumbersAsStringsFlag>(stream, handler);
    if (result) {
        if (skipped) {
            for (SkippedDaemon& d : found) d.message = prefix(file) + d.message;
            *skipped = std::move(found);
        }
        return std::move(handler.state);
    }
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

LauncherState loadPadded(const std::string& path, const std::string& shown, const DaemonSieve* sieve,
                         SkippedDaemons* skipped) {
    std::size_t length = 0;
    std::string buffer = readStateFileBytes(path, shown, padBytes, length);
    return parsePadded(buffer.data(), length, shown, sieve, skipped);
}

std::string padded(std::string_view json) {
    std::string buffer;
    buffer.reserve(json.size() + padBytes);
    buffer.append(json);
    buffer.append(padBytes, '\0');
    return buffer;
}

} // namespace

LauncherState parseState(std::string_view json, const std::string& fileName) {
    std::string buffer = padded(json);
    return parsePadded(buffer.data(), json.size(), fileName, nullptr, nullptr);
}

LauncherState parseState(std::string_view json, const std::string& fileName, SkippedDaemons& skipped) {
    std::string buffer = padded(json);
    return parsePadded(buffer.data(), json.size(), fileName, nullptr, &skipped);
}

LauncherState loadStateFile(const std::string& path) {
    return loadPadded(path, path, nullptr, nullptr);
}

LauncherState loadStateFile(const std::string& path, SkippedDaemons& skipped) {
    return loadPadded(path, path, nullptr, &skipped);
}

LauncherState loadStateFile(const std::string& path, const std::string& shown, const DaemonSieve& sieve,
                            SkippedDaemons& skipped) {
    return loadPadded(path, shown, &sieve, &skipped);
}

} // namespace Feed
