// XML-RPC values, the request body of a call, and the decoding of a methodResponse, as
// supervisord speaks them. The XML itself is read by expat; this file only turns expat's
// element events into values.
//
//   std::string body = Feed::XmlRpc::callBody("supervisor.getProcessInfo", {"web:web_0"});
//   Feed::XmlRpc::Value v = Feed::XmlRpc::decodeResponse(replyBody);   // may throw
//   Feed::XmlRpc::ResponseReader r; r.feed(part1); r.feed(part2); v = r.finish();  // as it arrives
//   const Feed::XmlRpc::Value* pid = v.member("pid");                   // null: none
//
// Why expat: supervisord's replies are small, flat documents read once from start to end;
// a streaming parser needs no tree of its own (the values are the tree), it is the most
// widely deployed and long-maintained XML parser in Debian, and its API is a handful of
// calls. Entity expansion is limited by expat itself (billion-laughs protection), and a
// reply that declares a DTD is refused outright.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Feed::XmlRpc {

struct Value;
using Array = std::vector<Value>;
using Struct = std::map<std::string, Value>;

// One XML-RPC value. dateTime.iso8601 and base64 are kept as their text; nil as monostate.
struct Value {
    std::variant<std::monostate, bool, std::int64_t, double, std::string, Array, Struct> v;

    bool isNil() const noexcept { return std::holds_alternative<std::monostate>(v); }
    const std::string* string() const noexcept { return std::get_if<std::string>(&v); }
    const std::int64_t* integer() const noexcept { return std::get_if<std::int64_t>(&v); }
    const bool* boolean() const noexcept { return std::get_if<bool>(&v); }
    const Array* array() const noexcept { return std::get_if<Array>(&v); }
    const Struct* structure() const noexcept { return std::get_if<Struct>(&v); }
    // The member called name of a struct; null when this is not a struct or has none.
    const Value* member(std::string_view name) const;

    friend bool operator==(const Value&, const Value&) = default;
};

// The server answered with a fault: code and string as it sent them.
class Fault : public std::runtime_error {
public:
    Fault(std::int64_t code, std::string text);
    std::int64_t code() const noexcept { return code_; }
    const std::string& text() const noexcept { return text_; }

private:
    std::int64_t code_;
    std::string text_;
};

// The reply is not a well-formed methodResponse; what() says what was wrong, and where
// (line and column of the reply) when expat found it.
class BadReply : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The body of a methodCall of method with string parameters, as UTF-8 XML.
std::string callBody(std::string_view method, const std::vector<std::string>& params);

// Reads a methodResponse piece by piece as it arrives, so that a large reply is parsed while
// the rest of it is still on its way (supervisord sends a few kilobytes per turn of its loop).
class ResponseReader {
public:
    ResponseReader();
    ~ResponseReader();
    ResponseReader(const ResponseReader&) = delete;
    ResponseReader& operator=(const ResponseReader&) = delete;

    // Parses the next bytes of the reply. Never throws for what the bytes hold: the first
    // problem is kept, later bytes are ignored, and finish() throws it.
    void feed(std::string_view bytes);
    // Bytes fed so far.
    std::size_t size() const noexcept { return size_; }
    // The value of the reply fed so far, which must be complete. Throws Fault for a fault
    // response, BadReply for anything that is not a methodResponse with exactly one
    // parameter or one fault. Call once.
    Value finish();

private:
    struct Parse;
    std::unique_ptr<Parse> parse_;
    std::size_t size_ = 0;
};

// The value of a methodResponse in one piece: a ResponseReader fed once.
Value decodeResponse(std::string_view body);

} // namespace Feed::XmlRpc
