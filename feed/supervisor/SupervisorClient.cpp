#include "SupervisorClient.h"

#include <curl/curl.h>

#include <mutex>

namespace Feed {

namespace {

// curl_global_init is not thread-safe; every client goes through here once.
void initCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// The largest reply accepted: far above what 10,000 processes' configurations take.
constexpr std::size_t maxReplyBytes = 256u << 20;

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto& body = *static_cast<std::string*>(user);
    std::size_t n = size * count;
    if (body.size() + n > maxReplyBytes) return 0; // makes curl fail the transfer
    body.append(data, n);
    return n;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* cancel = static_cast<const std::atomic<bool>*>(user);
    return cancel && cancel->load() ? 1 : 0;
}

} // namespace

SupervisorEndpoint SupervisorEndpoint::parse(std::string_view text) {
    SupervisorEndpoint e;
    if (text.empty()) throw std::invalid_argument("supervisord address: empty");
    if (text.starts_with("http://")) {
        std::string_view rest = text.substr(7);
        if (rest.empty() || rest.front() == '/')
            throw std::invalid_argument("supervisord address \"" + std::string(text) + "\": no host");
        e.url = std::string(text);
        if (rest.find('/') == std::string_view::npos) e.url += "/RPC2";
        return e;
    }
    if (text.starts_with("unix://"))
        text.remove_prefix(7);
    else if (text.find("://") != std::string_view::npos)
        throw std::invalid_argument("supervisord address \"" + std::string(text) +
                                    "\": neither a socket path, unix://PATH nor http://HOST:PORT");
    if (text.empty()) throw std::invalid_argument("supervisord address: unix:// without a path");
    e.socketPath = std::string(text);
    e.url = "http://localhost/RPC2";
    return e;
}

std::string SupervisorEndpoint::text() const {
    return socketPath.empty() ? url : "unix://" + socketPath;
}

struct SupervisorClient::Curl {
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    ~Curl() {
        if (easy) curl_easy_cleanup(easy);
        if (headers) curl_slist_free_all(headers);
    }
};

SupervisorClient::SupervisorClient(SupervisorEndpoint endpoint, Options options)
    : endpoint_(std::move(endpoint)), options_(std::move(options)), curl_(std::make_unique<Curl>()) {
    initCurlOnce();
    curl_->easy = curl_easy_init();
    if (!curl_->easy) throw std::runtime_error("supervisord client: cannot set up libcurl");
    curl_->headers = curl_slist_append(nullptr, "Content-Type: text/xml");
    CURL* c = curl_->easy;
    curl_easy_setopt(c, CURLOPT_URL, endpoint_.url.c_str());
    if (!endpoint_.socketPath.empty()) curl_easy_setopt(c, CURLOPT_UNIX_SOCKET_PATH, endpoint_.socketPath.c_str());
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, curl_->headers);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout.count()));
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options_.connectTimeout.count()));
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onBody);
    if (options_.cancel) {
        curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, onProgress);
        curl_easy_setopt(c, CURLOPT_XFERINFODATA, const_cast<std::atomic<bool>*>(options_.cancel));
    }
    if (!options_.username.empty()) {
        curl_easy_setopt(c, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
        curl_easy_setopt(c, CURLOPT_USERNAME, options_.username.c_str());
        curl_easy_setopt(c, CURLOPT_PASSWORD, options_.password.c_str());
    }
}

SupervisorClient::~SupervisorClient() = default;

XmlRpc::Value SupervisorClient::call(std::string_view method, const std::vector<std::string>& params) {
    using Kind = SupervisorCallError::Kind;
    std::string request = XmlRpc::callBody(method, params);
    std::string body;
    CURL* c = curl_->easy;
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, request.c_str());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.size()));
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &body);
    CURLcode rc = curl_easy_perform(c);
    std::string what = std::string(method) + ": ";
    if (rc != CURLE_OK) {
        what += curl_easy_strerror(rc);
        if (rc == CURLE_OPERATION_TIMEDOUT) {
            long connected = 0;
            curl_easy_getinfo(c, CURLINFO_CONNECT_TIME_T, &connected);
            throw SupervisorCallError(connected > 0 ? Kind::timeout : Kind::unreachable, what);
        }
        if (rc == CURLE_ABORTED_BY_CALLBACK) throw SupervisorCallError(Kind::cancelled, what);
        if (rc == CURLE_WRITE_ERROR) throw SupervisorCallError(Kind::badReply, what + " (reply too large)");
        throw SupervisorCallError(Kind::unreachable, what);
    }
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) {
        what += "HTTP status " + std::to_string(status);
        if (status == 401) what += " (wrong or missing credentials)";
        throw SupervisorCallError(Kind::refused, what);
    }
    try {
        return XmlRpc::decodeResponse(body);
    } catch (const XmlRpc::BadReply& e) {
        throw SupervisorCallError(Kind::badReply, what + e.what());
    }
}

} // namespace Feed
