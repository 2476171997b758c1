#include "Readiness.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <systemd/sd-daemon.h>

namespace Agent::Readiness {

namespace {

bool readySent = false;

void onWatchdogAlarm(unsigned int, void*) {
    sd_notify(0, "WATCHDOG=1");
}

} // namespace

void ready(const std::string& text) {
    const std::string message = (readySent ? "" : "READY=1\n") + std::string("STATUS=") + text;
    sd_notify(0, message.c_str());
    readySent = true;
}

void status(const std::string& text) {
    sd_notify(0, ("STATUS=" + text).c_str());
}

void stopping() {
    sd_notify(0, "STOPPING=1");
}

std::uint64_t startWatchdog() {
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) <= 0 || usec == 0) return 0;
    const uint64_t half = usec / 2;
    struct timeval every {};
    every.tv_sec = static_cast<time_t>(half / 1000000);
    every.tv_usec = static_cast<suseconds_t>(half % 1000000);
    sd_notify(0, "WATCHDOG=1");
    snmp_alarm_register_hr(every, SA_REPEAT, onWatchdogAlarm, nullptr);
    return usec;
}

} // namespace Agent::Readiness
