// How long the state feed takes with a 100,000-row file: 2,000 daemons with 25 options
// and 25 data keys each, written as the launcher writes it (indented).
//
// Times, best of --runs (default 10):
//   parse    parseState (RapidJSON SAX, validating while it reads)
//   nl-dom   the same result through nlohmann::json: parse to a tree, then walk and check it
//            (types, unknown members, lengths; not duplicates, which the tree has lost)
//   nl-sax   the same result through nlohmann::json's SAX interface (duplicates included)
//   diff     diffStates, full state against itself with one value changed
//   apply    StateApplier::apply of the whole state into an empty DaemonMib (first load),
//            then of the one-value difference (a typical reload)
//
// Build and run, from the repository root:
//   cmake --preset release && cmake --build --preset release --target statefeed_parse
//   build/release/bench/statefeed_parse [--runs N]
#include "feed/core/StateFeed.h"
#include "feed/file/FileSource.h"
#include "feed/file/StateReader.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

using namespace Feed;

namespace {

std::string makeFile(int daemons, int keys) {
    std::string out = "{\n  \"daemons\": {\n";
    for (int d = 0; d < daemons; ++d) {
        char name[32];
        std::snprintf(name, sizeof name, "daemon-%04d", d);
        out += std::string("    \"") + name +
               "\": {\n      \"config\": {\n        \"enabled\": " + (d % 3 ? "true" : "false") +
               ",\n        \"options\": {\n";
        for (int k = 0; k < keys; ++k) {
            char line[128];
            std::snprintf(line, sizeof line, "          \"option-key-%02d\": \"value-of-option-%02d-for-%s\"%s\n", k, k,
                          name, k + 1 < keys ? "," : "");
            out += line;
        }
        out += std::string("        }\n      },\n      \"status\": {\n        \"running\": ") +
               (d % 2 ? "true" : "false") + ",\n        \"data\": {\n";
        for (int k = 0; k < keys; ++k) {
            char line[128];
            std::snprintf(line, sizeof line, "          \"data-key-%02d\": \"published-%02d-%d\"%s\n", k, k, d * k,
                          k + 1 < keys ? "," : "");
            out += line;
        }
        out += std::string("        }\n      }\n    }") + (d + 1 < daemons ? ",\n" : "\n");
    }
    return out + "  }\n}\n";
}

// The nlohmann::json tree, walked and checked as the feed checks a file.
LauncherState viaNlohmannDom(const std::string& text) {
    using nlohmann::json;
    auto refuse = [](const std::string& what) { throw StateError("state file bench: " + what); };
    json doc = json::parse(text);
    if (!doc.is_object()) refuse("top level");
    LauncherState out;
    for (auto& [member, daemons] : doc.items()) {
        if (member != "daemons" || !daemons.is_object()) refuse("top level");
        for (auto& [name, d] : daemons.items()) {
            if (name.empty() || name.size() > 32 || !d.is_object()) refuse("daemon");
            DaemonState& s = out[name];
            for (auto& [section, body] : d.items()) {
                bool config = section == "config";
                if ((!config && section != "status") || !body.is_object()) refuse("daemon");
                (config ? s.hasConfig : s.hasStatus) = true;
                for (auto& [m, v] : body.items()) {
                    if (m == (config ? "enabled" : "running")) {
                        if (!v.is_boolean()) refuse("flag");
                        (config ? s.enabled : s.running) = v.get<bool>();
                    } else if (m == (config ? "options" : "data")) {
                        if (!v.is_object()) refuse("keys");
                        auto& keys = config ? s.options : s.data;
                        for (auto& [k, val] : v.items()) {
                            if (k.size() > 64 || !val.is_string()) refuse("key");
                            const std::string& str = val.get_ref<const std::string&>();
                            if (str.size() > 10240) refuse("value");
                            keys.emplace(k, str);
                        }
                    } else {
                        refuse("member");
                    }
                }
            }
        }
    }
    return out;
}

// nlohmann::json's SAX interface filling the same maps (shape checks reduced to depth).
class NlohmannSax : public nlohmann::json_sax<nlohmann::json> {
public:
    LauncherState out;
    bool null() override { return false; }
    bool boolean(bool b) override {
        (config_ ? daemon_->enabled : daemon_->running) = b;
        return true;
    }
    bool number_integer(number_integer_t) override { return false; }
    bool number_unsigned(number_unsigned_t) override { return false; }
    bool number_float(number_float_t, const string_t&) override { return false; }
    bool string(string_t& s) override {
        if (s.size() > 10240) return false;
        value_->assign(s);
        return true;
    }
    bool binary(binary_t&) override { return false; }
    bool start_object(std::size_t) override {
        ++depth_;
        return depth_ <= 5;
    }
    bool key(string_t& k) override {
        switch (depth_) {
            case 2: {
                auto [it, fresh] = out.try_emplace(k);
                daemon_ = &it->second;
                return fresh && !k.empty() && k.size() <= 32;
            }
            case 3:
                config_ = k == "config";
                (config_ ? daemon_->hasConfig : daemon_->hasStatus) = true;
                return config_ || k == "status";
            case 5: {
                auto& keys = config_ ? daemon_->options : daemon_->data;
                auto [it, fresh] = keys.try_emplace(k);
                value_ = &it->second;
                return fresh && k.size() <= 64;
            }
            default:
                return true;
        }
    }
    bool end_object() override {
        --depth_;
        return true;
    }
    bool start_array(std::size_t) override { return false; }
    bool end_array() override { return false; }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

private:
    int depth_ = 0;
    bool config_ = false;
    DaemonState* daemon_ = nullptr;
    std::string* value_ = nullptr;
};

LauncherState viaNlohmannSax(const std::string& text) {
    NlohmannSax sax;
    if (!nlohmann::json::sax_parse(text, &sax)) throw StateError("state file bench: refused");
    return std::move(sax.out);
}

double bestMillis(int runs, const std::function<void()>& f) {
    double best = 1e300;
    for (int i = 0; i < runs; ++i) {
        auto a = std::chrono::steady_clock::now();
        f();
        auto b = std::chrono::steady_clock::now();
        best = std::min(best, std::chrono::duration<double, std::milli>(b - a).count());
    }
    return best;
}

std::size_t rows(const LauncherState& s) {
    std::size_t n = 0;
    for (const auto& [name, d] : s) n += d.options.size() + d.data.size();
    return n;
}

} // namespace

int main(int argc, char** argv) {
    int runs = 10;
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--runs") == 0) runs = std::atoi(argv[i + 1]);

    const std::string text = makeFile(2000, 25);
    LauncherState parsed = parseState(text, "bench");
    if (viaNlohmannDom(text) != parsed || viaNlohmannSax(text) != parsed) {
        std::fprintf(stderr, "the parsers disagree\n");
        return 1;
    }
    std::printf("file: %zu bytes, %zu daemons, %zu option and data rows; best of %d runs\n", text.size(), parsed.size(),
                rows(parsed), runs);

    std::printf("parse   RapidJSON SAX (parseState)   %8.2f ms\n", bestMillis(runs, [&] {
                    volatile auto n = parseState(text, "bench").size();
                    (void)n;
                }));
    std::printf("nl-dom  nlohmann tree + walk         %8.2f ms\n", bestMillis(runs, [&] {
                    volatile auto n = viaNlohmannDom(text).size();
                    (void)n;
                }));
    std::printf("nl-sax  nlohmann SAX                 %8.2f ms\n", bestMillis(runs, [&] {
                    volatile auto n = viaNlohmannSax(text).size();
                    (void)n;
                }));

    LauncherState changed = parsed;
    changed["daemon-1000"].options["option-key-07"] = "another value";
    std::printf("diff    one value changed            %8.2f ms\n", bestMillis(runs, [&] {
                    volatile auto n = diffStates(parsed, changed).changes();
                    (void)n;
                }));

    StateDiff all = diffStates({}, parsed);
    StateDiff one = diffStates(parsed, changed);
    StateDiff back = diffStates(changed, parsed);
    double bestLoad = 1e300;
    for (int i = 0; i < runs; ++i) {
        StateApplier fresh(GenericAgent::daemonMibFactory("daemonMIB"));
        bestLoad = std::min(bestLoad, bestMillis(1, [&] { fresh.apply(all); }));
    }
    std::printf("apply   whole file (first load)      %8.2f ms\n", bestLoad);
    StateApplier applier(GenericAgent::daemonMibFactory("daemonMIB"));
    applier.apply(all);
    std::printf("apply   one value changed            %8.4f ms\n", bestMillis(runs, [&] {
                                                                       applier.apply(one);
                                                                       applier.apply(back);
                                                                   }) / 2);
    return 0;
}
