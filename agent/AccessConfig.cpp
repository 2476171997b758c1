#include "AccessConfig.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace Agent {

namespace {

std::string lower(std::string s) {
    for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    std::istringstream in(line);
    std::string w;
    while (in >> w) {
        if (w[0] == '#') break;
        out.push_back(w);
    }
    return out;
}

// A TYPES argument ("read,write", "write", "log,execute,net") names write.
bool namesWrite(const std::string& types) {
    std::istringstream in(lower(types));
    std::string t;
    while (std::getline(in, t, ','))
        if (t == "write") return true;
    return false;
}

const std::string noWrite = "; nothing this agent serves is writable, and no configuration can make it so";

} // namespace

std::vector<AccessFinding> checkAccessConfig(const std::string& path) {
    std::vector<AccessFinding> out;
    std::ifstream in(path);
    if (!in) {
        out.push_back({true, path + ": " + std::strerror(errno)});
        return out;
    }
    struct RoUser {
        int line;
        std::string name;
    };
    std::vector<RoUser> roUsers;
    std::vector<std::string> created;
    std::string text;
    int n = 0;
    while (std::getline(in, text)) {
        ++n;
        const auto w = words(text);
        if (w.empty()) continue;
        const std::string d = lower(w[0]);
        const std::string where = path + ": line " + std::to_string(n) + ": ";
        auto refuse = [&](const std::string& why) { out.push_back({true, where + why}); };
        if (d == "rwcommunity" || d == "rwcommunity6" || d == "rwuser") {
            refuse(w[0] + " grants write access (use ro" + d.substr(2) + ")" + noWrite);
        } else if (d == "access" && w.size() > 7 && lower(w[7]) != "none") {
            refuse("access gives group " + w[1] + " the write view " + w[7] + " (write none instead)" + noWrite);
        } else if (d == "setaccess" && w.size() > 7 && namesWrite(w[7])) {
            refuse("setaccess gives group " + w[1] + " write access" + noWrite);
        } else if ((d == "authcommunity" || d == "authuser" || d == "authgroup" || d == "authaccess") && w.size() > 1 &&
                   namesWrite(w[1])) {
            refuse(w[0] + " " + w[1] + " grants write access" + noWrite);
        } else if (d == "agentaddress") {
            refuse("agentaddress is not used by this agent: it listens only where --listen says");
        } else if (d == "includefile" || d == "includedir" || d == "includesearch") {
            refuse(w[0] +
                   " is not allowed: the agent checks the access configuration it reads, so every "
                   "directive must be in this file");
        } else if (d == "rouser" && w.size() > 1) {
            const std::string& name = w[1] == "-s" && w.size() > 3 ? w[3] : w[1];
            roUsers.push_back({n, name});
        } else if (d == "createuser" && w.size() > 1) {
            created.push_back(w[1] == "-e" && w.size() > 3 ? w[3] : w[1]);
        }
    }
    for (const auto& u : roUsers)
        if (std::find(created.begin(), created.end(), u.name) == created.end())
            out.push_back({false, path + ": line " + std::to_string(u.line) + ": rouser " + u.name +
                                      " has no createUser " + u.name +
                                      " in this file: unless the persistent directory already holds that user, "
                                      "nobody can query as " +
                                      u.name});
    return out;
}

} // namespace Agent
