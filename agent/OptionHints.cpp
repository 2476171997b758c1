#include "OptionHints.h"

#include <algorithm>

namespace Agent {

namespace {

// Optimal string alignment distance (Damerau-Levenshtein without repeated edits).
std::size_t distance(const std::string& a, const std::string& b) {
    const std::size_t n = a.size(), m = b.size();
    std::vector<std::vector<std::size_t>> d(n + 1, std::vector<std::size_t>(m + 1));
    for (std::size_t i = 0; i <= n; ++i) d[i][0] = i;
    for (std::size_t j = 0; j <= m; ++j) d[0][j] = j;
    for (std::size_t i = 1; i <= n; ++i)
        for (std::size_t j = 1; j <= m; ++j) {
            const std::size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[n][m];
}

} // namespace

std::string closestOption(const std::string& given, const std::vector<std::string>& known) {
    std::string name = given;
    while (!name.empty() && name.front() == '-') name.erase(0, 1);
    if (const auto eq = name.find('='); eq != std::string::npos) name.erase(eq);
    if (name.empty()) return {};
    std::vector<const std::string*> prefixed;
    for (const auto& k : known)
        if (k.size() > name.size() && k.compare(0, name.size(), name) == 0) prefixed.push_back(&k);
    if (prefixed.size() == 1) return "--" + *prefixed.front();
    const std::string* best = nullptr;
    std::size_t bestDistance = 0;
    for (const auto& k : known) {
        const std::size_t dist = distance(name, k);
        const std::size_t allowed = std::max<std::size_t>(2, k.size() / 3);
        if (dist == 0 || dist > allowed) continue;
        if (!best || dist < bestDistance) {
            best = &k;
            bestDistance = dist;
        }
    }
    return best ? "--" + *best : std::string();
}

} // namespace Agent
