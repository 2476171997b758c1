// The XML-RPC client against a small HTTP server on a private Unix socket: calls made
// together run at once on connections of their own, and replies read piece by piece decode
// as a reply read whole.
#include "feed/supervisor/SupervisorClient.h"
#include "feed/supervisor/XmlRpc.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

std::string response(const std::string& value) {
    return "<?xml version='1.0'?>\n<methodResponse><params><param>" + value + "</param></params></methodResponse>\n";
}

// One request read from a connection: its method name, or empty when none came in time.
std::string readRequest(int fd, std::chrono::milliseconds limit) {
    std::string got;
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        std::size_t head = got.find("\r\n\r\n");
        if (head != std::string::npos) {
            std::size_t at = got.find("Content-Length: ");
            std::size_t length = at == std::string::npos ? 0 : std::strtoul(got.c_str() + at + 16, nullptr, 10);
            if (got.size() >= head + 4 + length) break;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return {};
        char buf[4096];
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) return {};
        got.append(buf, static_cast<std::size_t>(n));
    }
    std::size_t a = got.find("<methodName>"), b = got.find("</methodName>");
    return a == std::string::npos || b == std::string::npos ? std::string() : got.substr(a + 12, b - a - 12);
}

void sendAll(int fd, const std::string& s) {
    for (std::size_t done = 0; done < s.size();) {
        ssize_t n = ::send(fd, s.data() + done, s.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

// A server on a Unix socket in a private temporary directory that waits until `together`
// connections have each sent a request, and only then answers each, in the order they came,
// with reply(method) (a status line and body). A client that makes its calls one after the
// other gets no answer: the server gives up after two seconds and closes the connections.
class TogetherServer {
public:
    using Reply = std::function<std::pair<int, std::string>(const std::string& method)>;

    TogetherServer(std::size_t together, Reply reply) : together_(together), reply_(std::move(reply)) {
        char tmpl[] = "/tmp/velmar-client-test-XXXXXX";
        if (!::mkdtemp(tmpl)) throw std::runtime_error("mkdtemp");
        dir_ = tmpl;
        path_ = dir_ + "/supervisor.sock";
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strncpy(a.sun_path, path_.c_str(), sizeof a.sun_path - 1);
        if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            ::listen(listener_, 8) != 0)
            throw std::runtime_error("cannot listen on " + path_);
        thread_ = std::thread([this] { serve(); });
    }
    ~TogetherServer() {
        thread_.join();
        ::close(listener_);
        std::filesystem::remove_all(dir_);
    }

    const std::string& path() const { return path_; }
    // The methods asked for, in the order their requests came in (filled once the thread ends).
    std::vector<std::string> methods;

private:
    void serve() {
        std::vector<int> conns;
        auto deadline = std::chrono::steady_clock::now() + 2s;
        while (conns.size() < together_) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd p{listener_, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
            int c = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) break;
            conns.push_back(c);
            auto wait =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            std::string m = readRequest(c, std::max(wait, 1ms));
            if (m.empty()) break;
            methods.push_back(m);
        }
        if (methods.size() == together_) {
            for (std::size_t k = 0; k < conns.size(); ++k) {
                auto [status, body] = reply_(methods[k]);
                sendAll(conns[k], "HTTP/1.1 " + std::to_string(status) +
                                      " X\r\nContent-Type: text/xml\r\nConnection: close\r\nContent-Length: " +
                                      std::to_string(body.size()) + "\r\n\r\n" + body);
            }
        }
        for (int c : conns) ::close(c);
    }

    std::size_t together_;
    Reply reply_;
    std::string dir_, path_;
    int listener_ = -1;
    std::thread thread_;
};

Feed::SupervisorClient clientOf(const std::string& path) {
    Feed::SupervisorClient::Options o;
    o.timeout = 3000ms;
    return Feed::SupervisorClient(Feed::SupervisorEndpoint::parse(path), o);
}

std::pair<int, std::string> echo(const std::string& method) {
    return {200, response("<value><string>" + method + "</string></value>")};
}

} // namespace

TEST(SupervisorClient, CallsMadeTogetherRunAtOnceAndReturnInOrder) {
    std::vector<Feed::XmlRpc::Value> got;
    std::vector<std::string> methods;
    {
        TogetherServer server(2, echo);
        Feed::SupervisorClient c = clientOf(server.path());
        got = c.callTogether({{"supervisor.getAllConfigInfo", {}}, {"supervisor.getAllProcessInfo", {}}});
    }
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(*got[0].string(), "supervisor.getAllConfigInfo");
    EXPECT_EQ(*got[1].string(), "supervisor.getAllProcessInfo");
}

TEST(SupervisorClient, OneFailedCallOfTwoIsThrownAfterBothEnd) {
    TogetherServer server(2, [](const std::string& method) -> std::pair<int, std::string> {
        if (method == "supervisor.getAllProcessInfo") return {401, "no"};
        return echo(method);
    });
    Feed::SupervisorClient c = clientOf(server.path());
    try {
        c.callTogether({{"supervisor.getAllConfigInfo", {}}, {"supervisor.getAllProcessInfo", {}}});
        FAIL() << "no error thrown";
    } catch (const Feed::SupervisorCallError& e) {
        EXPECT_EQ(e.kind(), Feed::SupervisorCallError::Kind::refused);
        EXPECT_STREQ(e.what(), "supervisor.getAllProcessInfo: HTTP status 401 (wrong or missing credentials)");
    }
}

TEST(SupervisorClient, AFaultOfTheFirstCallIsThrownFirst) {
    TogetherServer server(2, [](const std::string& method) -> std::pair<int, std::string> {
        if (method == "supervisor.getAllConfigInfo")
            return {200,
                    "<?xml version='1.0'?><methodResponse><fault><value><struct>"
                    "<member><name>faultCode</name><value><int>6</int></value></member>"
                    "<member><name>faultString</name><value><string>SHUTDOWN_STATE</string></value></member>"
                    "</struct></value></fault></methodResponse>"};
        return {500, "broken"};
    });
    Feed::SupervisorClient c = clientOf(server.path());
    try {
        c.callTogether({{"supervisor.getAllConfigInfo", {}}, {"supervisor.getAllProcessInfo", {}}});
        FAIL() << "no fault thrown";
    } catch (const Feed::XmlRpc::Fault& f) {
        EXPECT_EQ(f.code(), 6);
    }
}

TEST(XmlRpcResponseReader, PiecesOfAnySizeDecodeAsTheWhole) {
    std::string body = response(
        "<value><array><data>"
        "<value><struct><member><name>name</name><value><string>a &amp; b</string></value>"
        "</member><member><name>pid</name><value><int>42</int></value></member></struct></value>"
        "<value><boolean>1</boolean></value></data></array></value>");
    const Feed::XmlRpc::Value whole = Feed::XmlRpc::decodeResponse(body);
    for (std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}, std::size_t{64}, body.size()}) {
        SCOPED_TRACE(piece);
        Feed::XmlRpc::ResponseReader r;
        for (std::size_t at = 0; at < body.size(); at += piece) r.feed(std::string_view(body).substr(at, piece));
        EXPECT_EQ(r.size(), body.size());
        EXPECT_EQ(r.finish(), whole);
    }
}

TEST(XmlRpcResponseReader, AProblemInAnEarlyPieceIsThrownByFinishWithWhere) {
    Feed::XmlRpc::ResponseReader r;
    r.feed("<methodResponse>\n<params><param></params>");
    r.feed("<more/>"); // ignored after the first problem
    try {
        r.finish();
        FAIL() << "no error thrown";
    } catch (const Feed::XmlRpc::BadReply& e) {
        EXPECT_NE(std::string(e.what()).find("line 2"), std::string::npos) << e.what();
    }
}

TEST(XmlRpcResponseReader, AReplyCutShortIsRefused) {
    std::string body = response("<value><int>1</int></value>");
    Feed::XmlRpc::ResponseReader r;
    r.feed(std::string_view(body).substr(0, body.size() / 2));
    EXPECT_THROW(r.finish(), Feed::XmlRpc::BadReply);
}
