// A blocking XML-RPC client for supervisord's interface, over libcurl: the Unix socket of
// [unix_http_server] or the http://host:port of [inet_http_server], with basic
// authentication when supervisord asks for it. Every call has a time limit.
//
//   Feed::SupervisorClient client(Feed::SupervisorEndpoint::parse("/run/supervisor.sock"));
//   Feed::XmlRpc::Value all = client.call("supervisor.getAllProcessInfo");
//   auto both = client.callTogether({{"supervisor.getAllConfigInfo"}, {"supervisor.getAllProcessInfo"}});
//
// Why libcurl: it speaks HTTP over a Unix socket (CURLOPT_UNIX_SOCKET_PATH) as well as TCP,
// keeps the connections between calls, runs several calls at once on one thread (its multi
// interface), and bounds each call in time; it is Debian's standard HTTP client library.
//
// Replies are parsed as they arrive (XmlRpc::ResponseReader): supervisord sends a large
// reply a few kilobytes per turn of its loop, so the parsing fits in between.
//
// Threads: one client is used by one thread at a time.
#pragma once

#include "XmlRpc.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Feed {

// Where supervisord listens.
struct SupervisorEndpoint {
    std::string socketPath; // a Unix socket; empty: url
    std::string url;        // with socketPath: "http://localhost/RPC2"

    // From "PATH", "unix://PATH" or "http://HOST:PORT[/PATH]" (no path: /RPC2). Throws
    // std::invalid_argument naming what is wrong for an empty text or another scheme.
    static SupervisorEndpoint parse(std::string_view text);
    // "unix:///run/supervisor.sock" or "http://127.0.0.1:9001/RPC2", for messages.
    std::string text() const;
};

// A call that did not produce an XML-RPC value or fault.
class SupervisorCallError : public std::runtime_error {
public:
    enum class Kind {
        unreachable, // no connection (nothing listens, the connection dropped)
        timeout,     // connected, but no complete answer in time
        cancelled,   // Options::cancel was set
        refused,     // an HTTP status other than 200 (401: wrong or missing credentials)
        badReply,    // not a well-formed methodResponse
    };
    SupervisorCallError(Kind kind, const std::string& what) : std::runtime_error(what), kind_(kind) {}
    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

class SupervisorClient {
public:
    struct Options {
        std::chrono::milliseconds timeout{5000}; // per call, connecting included
        std::chrono::milliseconds connectTimeout{1000};
        std::string username; // basic authentication when set
        std::string password;
        const std::atomic<bool>* cancel = nullptr; // when set and true, a call ends at once
    };

    // Throws std::runtime_error when libcurl cannot be set up.
    SupervisorClient(SupervisorEndpoint endpoint, Options options);
    ~SupervisorClient();
    SupervisorClient(const SupervisorClient&) = delete;
    SupervisorClient& operator=(const SupervisorClient&) = delete;

    // Calls method with string parameters and returns its value. Throws XmlRpc::Fault when
    // supervisord answers with a fault, SupervisorCallError otherwise.
    XmlRpc::Value call(std::string_view method, const std::vector<std::string>& params = {});

    struct Call {
        std::string method;
        std::vector<std::string> params;
    };
    // Makes the calls at once, each on a connection of its own, and returns their values in
    // the order of calls. supervisord serves its connections in the same turns of its loop,
    // so two large replies take about as long as the larger one alone. Waits for every call
    // to end; then throws what call() would have thrown for the first call, in order, that
    // failed.
    std::vector<XmlRpc::Value> callTogether(const std::vector<Call>& calls);

    const SupervisorEndpoint& endpoint() const noexcept { return endpoint_; }

private:
    // One more easy handle, set up for this endpoint.
    void addHandle();

    struct Curl;
    SupervisorEndpoint endpoint_;
    Options options_;
    std::unique_ptr<Curl> curl_;
};

} // namespace Feed
