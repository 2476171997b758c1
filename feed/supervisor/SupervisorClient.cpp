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

// One call in flight: its request, and its reply as it is parsed.
struct Transfer {
    std::string request;
    XmlRpc::ResponseReader reply;
    CURLcode result = CURLE_OK;
    bool done = false;
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    std::size_t n = size * count;
    if (t.reply.size() + n > maxReplyBytes) return 0; // makes curl fail the transfer
    t.reply.feed(std::string_view(data, n));
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
    CURLM* multi = nullptr;
    std::vector<CURL*> easy; // one per call made at once; each keeps its connection
    curl_slist* headers = nullptr;
    ~Curl() {
        for (CURL* e : easy) curl_easy_cleanup(e);
        if (multi) curl_multi_cleanup(multi);
        if (headers) curl_slist_free_all(headers);
    }
};

SupervisorClient::SupervisorClient(SupervisorEndpoint endpoint, Options options)
    : endpoint_(std::move(endpoint)), options_(std::move(options)), curl_(std::make_unique<Curl>()) {
    initCurlOnce();
    curl_->multi = curl_multi_init();
    curl_->headers = curl_slist_append(nullptr, "Content-Type: text/xml");
    if (!curl_->multi || !curl_->headers) throw std::runtime_error("supervisord client: cannot set up libcurl");
    addHandle();
}

SupervisorClient::~SupervisorClient() = default;

void SupervisorClient::addHandle() {
    CURL* c = curl_easy_init();
    if (!c) throw std::runtime_error("supervisord client: cannot set up libcurl");
    curl_->easy.push_back(c);
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

XmlRpc::Value SupervisorClient::call(std::string_view method, const std::vector<std::string>& params) {
    return std::move(callTogether({Call{std::string(method), params}}).front());
}

std::vector<XmlRpc::Value> SupervisorClient::callTogether(const std::vector<Call>& calls) {
    using Kind = SupervisorCallError::Kind;
    while (curl_->easy.size() < calls.size()) addHandle();
    std::vector<Transfer> transfers(calls.size());
    CURLM* multi = curl_->multi;
    std::size_t added = 0;
    // Every handle added is taken out again, whatever happens.
    struct Remove {
        Curl& curl;
        std::size_t& added;
        ~Remove() {
            for (std::size_t k = 0; k < added; ++k) curl_multi_remove_handle(curl.multi, curl.easy[k]);
        }
    } remove{*curl_, added};
    for (std::size_t k = 0; k < calls.size(); ++k) {
        Transfer& t = transfers[k];
        t.request = XmlRpc::callBody(calls[k].method, calls[k].params);
        CURL* c = curl_->easy[k];
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, t.request.c_str());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(t.request.size()));
        curl_easy_setopt(c, CURLOPT_WRITEDATA, &t);
        curl_easy_setopt(c, CURLOPT_PRIVATE, &t);
        if (curl_multi_add_handle(multi, c) != CURLM_OK)
            throw SupervisorCallError(Kind::unreachable, calls[k].method + ": cannot start the call");
        ++added;
    }
    // Each transfer ends by itself: its own time limit, or the cancel flag through onProgress.
    int running = static_cast<int>(calls.size());
    while (running > 0) {
        CURLMcode mc = curl_multi_perform(multi, &running);
        if (mc == CURLM_OK && running > 0) mc = curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        if (mc != CURLM_OK)
            throw SupervisorCallError(Kind::unreachable, calls.front().method + ": " + curl_multi_strerror(mc));
    }
    int left = 0;
    while (CURLMsg* m = curl_multi_info_read(multi, &left)) {
        if (m->msg != CURLMSG_DONE) continue;
        Transfer* t = nullptr;
        curl_easy_getinfo(m->easy_handle, CURLINFO_PRIVATE, &t);
        if (t) {
            t->result = m->data.result;
            t->done = true;
        }
    }

    std::vector<XmlRpc::Value> values;
    values.reserve(calls.size());
    for (std::size_t k = 0; k < calls.size(); ++k) {
        Transfer& t = transfers[k];
        CURL* c = curl_->easy[k];
        std::string what = calls[k].method + ": ";
        if (!t.done) throw SupervisorCallError(Kind::unreachable, what + "the call did not end");
        if (t.result != CURLE_OK) {
            what += curl_easy_strerror(t.result);
            if (t.result == CURLE_OPERATION_TIMEDOUT) {
                long connected = 0;
                curl_easy_getinfo(c, CURLINFO_CONNECT_TIME_T, &connected);
                throw SupervisorCallError(connected > 0 ? Kind::timeout : Kind::unreachable, what);
            }
            if (t.result == CURLE_ABORTED_BY_CALLBACK) throw SupervisorCallError(Kind::cancelled, what);
            if (t.result == CURLE_WRITE_ERROR) throw SupervisorCallError(Kind::badReply, what + " (reply too large)");
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
            values.push_back(t.reply.finish());
        } catch (const XmlRpc::BadReply& e) {
            throw SupervisorCallError(Kind::badReply, what + e.what());
        }
    }
    return values;
}

} // namespace Feed
