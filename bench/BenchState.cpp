// velmar-bench-state: writes a generated launcher state file (see BenchRows.h) and prints
// what it holds as one JSON object.
//
//   velmar-bench-state --option-rows 10000 --data-rows 10000 --out rows.json
//   {"daemons": 402, "option_rows": 10000, "data_rows": 10000, "model_rows": 20804,
//    "string_bytes": 512345, "file_bytes": 1234567}
#include "BenchRows.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    Bench::StateShape shape;
    std::string out;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (i + 1 >= argc) {
            std::cerr << "velmar-bench-state: " << a << " needs a value\n";
            return 2;
        }
        const std::string v = argv[++i];
        if (a == "--option-rows")
            shape.optionRows = std::stoul(v);
        else if (a == "--data-rows")
            shape.dataRows = std::stoul(v);
        else if (a == "--mean-keys")
            shape.meanKeys = std::stoul(v);
        else if (a == "--seed")
            shape.seed = std::stoull(v);
        else if (a == "--out")
            out = v;
        else {
            std::cerr << "velmar-bench-state: unknown argument " << a << "\n";
            return 2;
        }
    }
    if (out.empty()) {
        std::cerr << "usage: velmar-bench-state --option-rows N --data-rows N --out FILE\n";
        return 2;
    }
    const Feed::LauncherState state = Bench::makeState(shape);
    const std::string json = Bench::stateJson(state);
    {
        std::ofstream f(out + ".tmp", std::ios::binary);
        f << json;
        if (!f) {
            std::cerr << "velmar-bench-state: cannot write " << out << "\n";
            return 1;
        }
    }
    if (std::rename((out + ".tmp").c_str(), out.c_str()) != 0) {
        std::cerr << "velmar-bench-state: cannot rename onto " << out << "\n";
        return 1;
    }
    std::size_t options = 0, data = 0;
    for (const auto& [name, s] : state) {
        options += s.options.size();
        data += s.data.size();
    }
    std::printf(
        "{\"daemons\": %zu, \"option_rows\": %zu, \"data_rows\": %zu, \"model_rows\": %zu, "
        "\"string_bytes\": %zu, \"row_string_bytes\": %zu, \"file_bytes\": %zu}\n",
        state.size(), options, data, Bench::modelRows(state), Bench::stringBytes(state), Bench::rowStringBytes(state),
        json.size());
    return 0;
}
