// The feed's health over SNMP: the scalars of velmarDaemonFeed (velmarDaemonMIB.4 in
// VELMAR-DAEMON-MIB), answered from a Feed::StateFeed at request time.
//
//   Agent::FeedHealthMib health(*host.feed());   // registers the scalars (default context)
//   // ... requests are answered while it lives ...
//   // destroyed: the scalars are withdrawn
//
// Objects (each .0; see the MIB for what an operator does with them):
//    1 velmarFeedSource         text       what the feed reads ("state file /run/launcher/state.json")
//    2 velmarFeedState          INTEGER    ok(1) refused(2) gone(3) busLost(4) notLoaded(5) unresponsive(6)
//    3 velmarFeedChangeAge      Gauge32    seconds since the served state last changed
//    4 velmarFeedReadAge        Gauge32    seconds since the source was last read successfully
//    5 velmarFeedLastChange     DateAndTime (UTC) of 3
//    6 velmarFeedLastRead       DateAndTime (UTC) of 4
//    7 velmarFeedLastRefusal    text       the last refusal's line
//    8 velmarFeedDaemons        Gauge32    daemons served
//    9 velmarFeedRows           Gauge32    rows served in the four tables
//   10 velmarFeedReloads        Counter32  reads applied (partial ones included)
//   11 velmarFeedRefusals       Counter32  reads refused whole
//   12 velmarFeedSkippedNow     Gauge32    daemon entries left out of the last applied read
//   13 velmarFeedSkipped        Counter32  daemon entries left out, all reads
//   14 velmarFeedLastSkip       text       the last skipped entry's line
// Ages are 4294967295 and times eight zero octets while there has been none. Texts are
// UTF-8, cut at a character boundary to at most maxTextBytes.
//
// Threads: constructed, used and destroyed on the thread of Net-SNMP's select loop, which
// is the one that reads the feed.
#pragma once

#include "feed/core/StateFeed.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct netsnmp_handler_registration_s;

namespace Agent {

class FeedHealthMib {
public:
    static constexpr std::size_t maxTextBytes = 1024;
    static constexpr std::uint32_t never = 0xffffffffu;

    // Registers the scalars; keeps a reference to feed, which must outlive this. Throws
    // std::runtime_error naming the subtree when Net-SNMP refuses the registration.
    explicit FeedHealthMib(const Feed::StateFeed& feed);
    ~FeedHealthMib();
    FeedHealthMib(const FeedHealthMib&) = delete;
    FeedHealthMib& operator=(const FeedHealthMib&) = delete;

    // The subtree's OID, with the build's enterprise number.
    static const std::vector<unsigned long>& subtree();

    // The values as served, for the handler and for tests.
    static std::uint32_t ageSeconds(std::chrono::system_clock::time_point since,
                                    std::chrono::system_clock::time_point now);
    static std::string dateAndTime(std::chrono::system_clock::time_point t); // 11 octets UTC; 8 zeros: never
    static std::string text(const std::string& s);                           // cut to maxTextBytes
    static long stateValue(Feed::SourceState state);

    const Feed::StateFeed& feed() const noexcept { return feed_; }

private:
    const Feed::StateFeed& feed_;
    netsnmp_handler_registration_s* registration_ = nullptr;
};

} // namespace Agent
