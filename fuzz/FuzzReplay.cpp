// The fuzz targets without libFuzzer: a small driver, linked with one target's source, that
// feeds the target's committed seed corpus and then a fixed number of deterministic
// mutations of it through LLVMFuzzerTestOneInput. It builds with any compiler, so the
// default and sanitizer builds run every target's checks on every test run; the long
// coverage-guided runs are scripts/fuzz.
//
//   fuzz_replay_state_file [--mutations N] [--seed S] [--max-len N] [--dict FILE]... PATH...
//
// PATH is a file or a directory (its regular files, not recursively). A dictionary is
// libFuzzer's format: one "quoted token" per line, optionally after `name=`, with \\, \"
// and \xHH escapes; its tokens are inserted and overwritten by the mutator. A finding
// aborts (see FuzzCheck.h); the driver prints which input it was working on before every
// seed and every 500 mutations, and a summary at the end.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;
using Bytes = std::string;

Bytes readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The tokens of a libFuzzer dictionary file.
std::vector<Bytes> readDictionary(const fs::path& p) {
    std::vector<Bytes> tokens;
    std::ifstream in(p);
    std::string line;
    while (std::getline(in, line)) {
        auto first = line.find('"');
        auto last = line.rfind('"');
        if (line.empty() || line[0] == '#' || first == std::string::npos || last <= first) continue;
        Bytes t;
        for (std::size_t i = first + 1; i < last; ++i) {
            if (line[i] != '\\' || i + 1 >= last) {
                t += line[i];
                continue;
            }
            char e = line[++i];
            if (e == 'x' && i + 2 < last && hexValue(line[i + 1]) >= 0 && hexValue(line[i + 2]) >= 0) {
                t += static_cast<char>(hexValue(line[i + 1]) * 16 + hexValue(line[i + 2]));
                i += 2;
            } else {
                t += e;
            }
        }
        if (!t.empty()) tokens.push_back(t);
    }
    return tokens;
}

class Mutator {
public:
    Mutator(std::uint64_t seed, std::vector<Bytes> dictionary, std::size_t maxLen)
        : rng_(seed), dictionary_(std::move(dictionary)), maxLen_(maxLen) {}

    // One to four random edits of base; other may be spliced in.
    Bytes mutate(Bytes b, const Bytes& other) {
        int edits = 1 + static_cast<int>(below(4));
        for (int i = 0; i < edits; ++i) edit(b, other);
        if (b.size() > maxLen_) b.resize(maxLen_);
        return b;
    }

private:
    std::size_t below(std::size_t n) { return n == 0 ? 0 : static_cast<std::size_t>(rng_() % n); }

    void edit(Bytes& b, const Bytes& other) {
        static const char interesting[] = "\"'\\{}[]:,0x \n\t\x01\x7f\x80\xbf\xc0\xed\xef\xf4\xff";
        std::size_t op = below(10);
        if (b.empty() && op < 6) op = 6;
        std::size_t at = below(b.size() + 1);
        switch (op) {
            case 0:
                b[below(b.size())] ^= static_cast<char>(1u << below(8));
                break;
            case 1:
                b[below(b.size())] = static_cast<char>(rng_());
                break;
            case 2:
                b[below(b.size())] = interesting[below(sizeof interesting - 1)];
                break;
            case 3: { // delete a range
                std::size_t from = below(b.size());
                b.erase(from, 1 + below(std::min<std::size_t>(16, b.size() - from)));
                break;
            }
            case 4: { // duplicate a range
                std::size_t from = below(b.size());
                std::size_t n = 1 + below(std::min<std::size_t>(64, b.size() - from));
                b.insert(at, b.substr(from, n));
                break;
            }
            case 5: { // overwrite with a token
                if (dictionary_.empty()) break;
                const Bytes& t = dictionary_[below(dictionary_.size())];
                std::size_t from = below(b.size());
                b.replace(from, std::min(t.size(), b.size() - from), t);
                break;
            }
            case 6:
                if (!dictionary_.empty()) {
                    b.insert(at, dictionary_[below(dictionary_.size())]);
                    break;
                }
                [[fallthrough]];
            case 7:
                b.insert(at, 1, interesting[below(sizeof interesting - 1)]);
                break;
            case 8:
                b.insert(at, 1, static_cast<char>(rng_()));
                break;
            default: { // splice: a prefix of this one, a suffix of the other
                std::size_t from = below(other.size() + 1);
                b = b.substr(0, at) + other.substr(from);
                break;
            }
        }
    }

    std::mt19937_64 rng_;
    std::vector<Bytes> dictionary_;
    std::size_t maxLen_;
};

void run(const Bytes& b) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(b.data()), b.size());
}

int usage(const char* self) {
    std::cerr << "usage: " << self << " [--mutations N] [--seed S] [--max-len N] [--dict FILE]... PATH...\n";
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    std::size_t mutations = 3000, maxLen = 16384;
    std::uint64_t seed = 1;
    std::vector<Bytes> dictionary;
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) std::exit(usage(argv[0]));
            return argv[++i];
        };
        if (a == "--mutations")
            mutations = std::stoull(value());
        else if (a == "--seed")
            seed = std::stoull(value());
        else if (a == "--max-len")
            maxLen = std::stoull(value());
        else if (a == "--dict") {
            auto t = readDictionary(value());
            dictionary.insert(dictionary.end(), t.begin(), t.end());
        } else if (!a.empty() && a[0] == '-')
            return usage(argv[0]);
        else if (fs::is_directory(a)) {
            for (const auto& e : fs::directory_iterator(a))
                if (e.is_regular_file()) files.push_back(e.path());
        } else if (fs::is_regular_file(a))
            files.push_back(a);
        else {
            std::cerr << argv[0] << ": no such file or directory: " << a << "\n";
            return 2;
        }
    }
    if (files.empty()) return usage(argv[0]);
    std::sort(files.begin(), files.end());

    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<Bytes> seeds;
    for (const auto& f : files) {
        std::cerr << "seed " << f.string() << "\n";
        seeds.push_back(readFile(f));
        run(seeds.back());
    }
    Mutator m(seed, dictionary, maxLen);
    std::mt19937_64 pick(seed ^ 0x9e3779b97f4a7c15ull);
    for (std::size_t i = 0; i < mutations; ++i) {
        const Bytes& base = seeds[pick() % seeds.size()];
        const Bytes& other = seeds[pick() % seeds.size()];
        if (i % 500 == 0)
            std::cerr << "mutations " << i << " to " << std::min(i + 500, mutations) - 1 << " (seed " << seed << ")\n";
        run(m.mutate(base, other));
    }
    std::cout << "replayed " << seeds.size() << " seed inputs and " << mutations << " mutations (seed " << seed << ", "
              << dictionary.size() << " dictionary tokens): no finding\n";
    return 0;
}
