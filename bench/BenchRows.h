// Generated launcher state for the benchmarks: daemons with options and data keys of
// realistic, mixed lengths (short names such as "ntpd" next to "route-reflector-vrf0042",
// keys from "mtu" to "neighbor.10.12.0.7.remote-as", values from "1" to a line of text),
// reproducible from a seed. Every benchmark and every way of serving the rows sees the
// same rows.
//
//   Bench::StateShape shape{.optionRows = 10000, .dataRows = 10000};
//   Feed::LauncherState s = Bench::makeState(shape);
//   std::string json = Bench::stateJson(s);               // the file the launcher would write
//   std::vector<Bench::Row> rows = Bench::optionRows(s);  // in SNMP index order
#pragma once

#include "feed/core/StateFeed.h"
#include "feed/file/FileSource.h"
#include "feed/file/StateReader.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

// What to generate. Daemons get between 1 and 2 * meanKeys - 1 keys each (options and data
// alike) until the tables hold exactly the asked numbers of rows.
struct StateShape {
    std::size_t optionRows = 1000;
    std::size_t dataRows = 1000;
    std::size_t meanKeys = 25;
    std::uint64_t seed = 20240601;
};

// A small, fast, reproducible generator (splitmix64).
class Random {
public:
    explicit Random(std::uint64_t seed) : s_(seed) {}
    std::uint64_t next() noexcept {
        std::uint64_t z = (s_ += 0x9e3779b97f4a7c15ull);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    // Uniform in [0, n).
    std::size_t below(std::size_t n) noexcept { return static_cast<std::size_t>(next() % n); }

private:
    std::uint64_t s_;
};

// The state of that shape; every option and data value is non-empty (each key is a row).
Feed::LauncherState makeState(const StateShape& shape);

// The state as the launcher writes it (indented JSON), accepted by Feed::parseState.
std::string stateJson(const Feed::LauncherState& state);

// One row of the option (or data) table: the daemon name, the key and the value.
struct Row {
    std::string name;
    std::string key;
    std::string value;
};

// The option rows (every option with a non-empty value), sorted in SNMP index order:
// shorter name first, then bytes; for equal names, shorter key first, then bytes.
std::vector<Row> optionRows(const Feed::LauncherState& state);

// The index of a row as OID sub-identifiers: length and bytes of the name, then of the key.
std::vector<unsigned long> indexOid(const std::string& name, const std::string& key);

// Bytes of the state's own strings, each counted once: every daemon name, and the key and
// value of every option and data row.
std::size_t stringBytes(const Feed::LauncherState& state);

// Bytes of the strings each option and data row is made of (its name, key and value),
// summed over the rows: a name shared by many rows counts once per row.
std::size_t rowStringBytes(const Feed::LauncherState& state);

// Rows of the four tables: enabled and running (one each per daemon), option and data.
std::size_t modelRows(const Feed::LauncherState& state);

} // namespace Bench
