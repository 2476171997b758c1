// velmar-supervisor-events: a supervisord event listener that tells velmar-snmp-agent which
// process changed, so that the agent reads that process at once instead of polling.
//
//   [eventlistener:velmar-events]
//   command=/usr/bin/velmar-supervisor-events /run/velmar-snmp-agent/supervisor-events.sock
//   events=PROCESS_STATE,PROCESS_GROUP,TICK_5
//
// It speaks supervisord's listener protocol on stdin and stdout (READY, then a header line
// and its payload, then "RESULT 2\nOK") and sends one datagram per event to the agent's
// Unix datagram socket (EventNote.h). A datagram that cannot be sent (no agent, a full
// queue) is dropped: the agent's periodic full read covers it. Lines on stderr go to the
// listener's log under supervisord.
#include "feed/supervisor/EventNote.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

namespace {

constexpr std::size_t maxPayload = 1 << 20;

void usage(std::ostream& out) {
    out << "usage: velmar-supervisor-events SOCKET\n"
           "Runs under supervisord as an [eventlistener:...] with\n"
           "events=PROCESS_STATE,PROCESS_GROUP,TICK_5 and tells velmar-snmp-agent, on its\n"
           "Unix datagram socket SOCKET (its --supervisor-events), which process changed.\n";
}

struct Sender {
    int fd = -1;
    sockaddr_un to{};
    bool warned = false;

    void send(const Feed::EventNote& note) {
        std::string d = Feed::encodeNote(note);
        if (::sendto(fd, d.data(), d.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0) {
            if (!warned)
                std::cerr << "velmar-supervisor-events: cannot reach " << to.sun_path << ": " << std::strerror(errno)
                          << " (said once)\n";
            warned = true;
        } else {
            warned = false;
        }
    }
};

Sender sender;
const std::string byeNote = Feed::encodeNote(Feed::EventNote{Feed::EventNote::Kind::bye, {}, {}});

// supervisord stops its listeners with a signal when it stops or restarts: say so, so that
// the agent looks at once instead of at its next full read.
extern "C" void onStopSignal(int sig) {
    ::sendto(sender.fd, byeNote.data(), byeNote.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&sender.to),
             sizeof sender.to);
    ::signal(sig, SIG_DFL);
    ::raise(sig);
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        usage(std::cout);
        return 0;
    }
    if (argc != 2 || argv[1][0] == '\0') {
        usage(std::cerr);
        return 2;
    }
    Sender& s = sender;
    std::size_t len = std::strlen(argv[1]);
    if (len >= sizeof s.to.sun_path) {
        std::cerr << "velmar-supervisor-events: socket path \"" << argv[1] << "\" is " << len
                  << " bytes, more than a Unix socket allows\n";
        return 2;
    }
    s.to.sun_family = AF_UNIX;
    std::memcpy(s.to.sun_path, argv[1], len + 1);
    s.fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s.fd < 0) {
        std::cerr << "velmar-supervisor-events: socket: " << std::strerror(errno) << "\n";
        return 1;
    }
    std::ios::sync_with_stdio(false);
    s.send(Feed::EventNote{Feed::EventNote::Kind::hello, {}, {}});
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) ::signal(sig, onStopSignal);
    auto bye = [&] {
        s.send(Feed::EventNote{Feed::EventNote::Kind::bye, {}, {}});
        return 0;
    };

    std::string header;
    std::string payload;
    for (;;) {
        std::cout << "READY\n" << std::flush;
        if (!std::getline(std::cin, header)) return bye(); // supervisord closed our stdin
        auto tokens = Feed::eventTokens(header);
        std::size_t n = 0;
        auto len_ = tokens.find("len");
        const std::string* lenText = len_ == tokens.end() ? nullptr : &len_->second;
        if (!lenText || std::from_chars(lenText->data(), lenText->data() + lenText->size(), n).ec != std::errc() ||
            n > maxPayload) {
            std::cerr << "velmar-supervisor-events: a header without a usable len: \"" << header.substr(0, 200)
                      << "\"; stopping\n";
            return 1;
        }
        payload.assign(n, '\0');
        if (!std::cin.read(payload.data(), static_cast<std::streamsize>(n))) return bye();
        auto name = tokens.find("eventname");
        if (name != tokens.end())
            if (auto note = Feed::noteForEvent(name->second, payload)) s.send(*note);
        std::cout << "RESULT 2\nOK" << std::flush;
    }
}
