// The velmar* directives of snmpd.conf, which the dlmod bridge (VelmarDaemonMIBBridge.cpp)
// registers when snmpd loads it: each line is parsed as snmpd reads it, into the Settings
// below. A bad line is reported through config_perror, which names the file and the line,
// and changes nothing; whether the settings together can be served is the bridge's to say
// once snmpd has read its whole configuration.
//
//   Bridge::registerDirectives(settings);   // at init: the lines fill settings from now on
//   ...                                      // snmpd reads its configuration
//   Bridge::unregisterDirectives();         // before settings goes
#pragma once

#include "agent/notify/NotifyScheduler.h"

#include <optional>
#include <string>
#include <vector>

namespace Bridge {

// What snmpd.conf said.
struct Settings {
    std::string stateFile;                   // velmarStateFile
    std::optional<std::string> systemdUnits; // velmarSystemd's patterns
    std::optional<std::string> supervisor;   // velmarSupervisor's address
    std::string supervisorUnits;             // velmarSupervisorUnits; empty: every process
    std::string supervisorEvents;
    std::string supervisorAuth;
    bool serveCommandLines = false; // velmarServeCommandLines
    std::string modulePath;
    std::vector<std::string> contexts;
    Agent::NotifyScheduler::Settings notify;
    std::optional<std::vector<std::string>> notifyData; // velmarNotifyData's keys
    std::optional<std::string> traceBefore;             // the trace configuration velmarTrace replaced
};

constexpr const char* stateFileToken = "velmarStateFile";
constexpr const char* systemdToken = "velmarSystemd";
constexpr const char* supervisorToken = "velmarSupervisor";
constexpr const char* moduleToken = "velmarModule";

// Registers every velmar* directive with snmpd; until unregisterDirectives, the lines snmpd
// reads fill settings (a line given twice counts the last time; velmarContext adds up).
void registerDirectives(Settings& settings);
// Unregisters them; settings is no longer written. Safe to repeat.
void unregisterDirectives();

} // namespace Bridge
