#include "NotifyData.h"

#include "GenericAgent/GenericAgentSnmp.h"

#include <algorithm>

namespace Agent {

std::vector<std::string> notifyDataKeys(const std::string& text) {
    std::vector<std::string> keys;
    if (text.find_first_not_of(" \t") == std::string::npos) return keys;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        std::string key = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const std::size_t b = key.find_first_not_of(" \t");
        const std::size_t e = key.find_last_not_of(" \t");
        key = b == std::string::npos ? std::string() : key.substr(b, e - b + 1);
        if (key.empty())
            throw std::invalid_argument("empty data key at position " + std::to_string(start + 1) + " of '" + text +
                                        "'");
        if (key.size() > GenericAgent::maxIndexKeyBytes)
            throw std::invalid_argument("data key '" + key + "' is longer than " +
                                        std::to_string(GenericAgent::maxIndexKeyBytes) + " bytes");
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(std::move(key));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return keys;
}

std::string defaultNotifyData(bool systemd) {
    return systemd ? "Result,ExecMainCode,ExecMainStatus" : "";
}

} // namespace Agent
