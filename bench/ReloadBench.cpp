// velmar-bench-reload: what a reload that changes one value costs, against what parsing the
// same file costs, on the real state feed.
//
// A state file of --rows key rows (half options, half data; realistic mixed lengths) is
// loaded once through a Feed::StateFeed on a Feed::FileSource, whose worker is then started. Each round replaces
// the file atomically (write, rename) with a copy in which one option value differs, waits
// for the worker to post the difference, and applies it with handleEvent(), as the
// agent's loop does. Measured per round:
//   reload   CPU time of the whole process from the rename until the worker is idle again
//            after handleEvent returned: the worker's read, parse, validation, diff, release
//            of what it no longer needs, and the loop's apply (the process does nothing
//            else meanwhile)
//   apply    the loop's share of it (handleEvent, thread CPU time)
//   reload_after_release   the same for a reload that follows a pause long enough for the
//            worker to have handed the memory it parsed into back to the system (it does
//            so once idle for a second), so that the reload faults it in again
//   release  the worker's CPU for that hand-back
//   parse_after_release   the parse alone after its memory went back to the system, which
//            reload_after_release is compared with (both fault their memory in)
//   parse    Feed::loadStateFile of the same file on this thread (read + parse + validate)
// The agent's listeners of the model are attached as in the agent (a ModelWatch telling the
// daemon history), and the loop's share includes the activity loop run that tells them.
// and checked: the difference is one value changed in place, no row comes or goes (an
// observer of the DaemonMib hears nothing), and the row objects are the same ones.
//
// Output: one JSON object on standard output (times in seconds, medians over --rounds).
//   velmar-bench-reload --rows 100000 --rounds 9 --cold-rounds 3 --dir /tmp/x
#include "BenchRows.h"

#include "feed/core/StateFeed.h"
#include "feed/file/FileSource.h"
#include "feed/file/StateReader.h"

#include "agent/history/DaemonHistory.h"
#include "orbel/Activity.h"

#include <malloc.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

namespace {

double threadCpu() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

double processCpu() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

void writeAtomically(const std::string& path, const std::string& text) {
    {
        std::ofstream f(path + ".tmp", std::ios::binary);
        f << text;
    }
    std::filesystem::rename(path + ".tmp", path);
}

// Hears every row that comes or goes.
class RowCounter : public GenericAgent::DaemonMib::Notifiee {
public:
    static Orbel::Ptr<RowCounter> make() { return new RowCounter; }
    std::size_t told = 0;
    void onEnabledTable(Snmp::String) override { ++told; }
    void onOptionTable(const GenericAgent::OptionTableIndex&) override { ++told; }
    void onRunningTable(Snmp::String) override { ++told; }
    void onDataTable(const GenericAgent::DataTableIndex&) override { ++told; }
};

} // namespace

int main(int argc, char** argv) {
    std::size_t rows = 100000, rounds = 9, coldRounds = 3;
    std::string dir = "/tmp";
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i], v = argv[i + 1];
        if (a == "--rows")
            rows = std::stoul(v);
        else if (a == "--rounds")
            rounds = std::stoul(v);
        else if (a == "--cold-rounds")
            coldRounds = std::max<std::size_t>(1, std::stoul(v));
        else if (a == "--dir")
            dir = v;
        else {
            std::cerr << "velmar-bench-reload: unknown argument " << a << "\n";
            return 2;
        }
    }
    Bench::StateShape shape;
    shape.optionRows = rows / 2;
    shape.dataRows = rows - rows / 2;
    Feed::LauncherState state = Bench::makeState(shape);
    // The value that changes: the first option of the middle daemon.
    auto middle = std::next(state.begin(), static_cast<long>(state.size() / 2));
    std::string& changing = middle->second.options.begin()->second;
    const std::string original = changing;
    const std::string first = Bench::stateJson(state);
    changing = original + "-changed";
    const std::string second = Bench::stateJson(state);

    std::filesystem::create_directories(dir);
    const std::string path = dir + "/reload-state.json";
    writeAtomically(path, first);

    // Parsing alone, for comparison: right after another parse (its memory still in the
    // allocator's hands), and after that memory went back to the system (so that the parse
    // faults it in again, as a reload does after the worker handed its memory back).
    std::vector<double> parse, coldParse;
    for (std::size_t r = 0; r < rounds; ++r) {
        const double t0 = threadCpu();
        Feed::LauncherState s = Feed::loadStateFile(path);
        const double t1 = threadCpu();
        parse.push_back(t1 - t0);
    }
    for (std::size_t r = 0; r < coldRounds; ++r) {
        malloc_trim(0);
        const double t0 = threadCpu();
        Feed::LauncherState s = Feed::loadStateFile(path);
        const double t1 = threadCpu();
        coldParse.push_back(t1 - t0);
    }

    Orbel::Ptr<GenericAgent::DaemonMib> mib = GenericAgent::daemonMibFactory("daemonMIB");
    std::vector<std::string> log;
    Feed::StateFeed feed(std::make_unique<Feed::FileSource>(path), mib,
                         [&](Feed::Severity, const std::string& line) { log.push_back(line); });
    feed.loadInitial();
    const std::size_t modelRows =
        mib->enabledTable().size() + mib->optionTable().size() + mib->runningTable().size() + mib->dataTable().size();
    // Row objects before any reload, to check that they survive.
    std::vector<const void*> before;
    for (auto it = mib->optionTable().begin(); !it.isEnd(); ++it) before.push_back(it.ptr());
    for (auto it = mib->dataTable().begin(); !it.isEnd(); ++it) before.push_back(it.ptr());
    for (auto it = mib->enabledTable().begin(); !it.isEnd(); ++it) before.push_back(it.ptr());

    // What the agent hears the model with: the notifier's watch, telling the history.
    Agent::DaemonHistory history(mib, [] { return Agent::DaemonHistory::Stamp{1, std::chrono::system_clock::now()}; });
    Agent::ModelWatch watch(mib, nullptr);
    watch.listenerIs(&history);
    watch.start();

    Orbel::Ptr<RowCounter> counter = RowCounter::make();
    counter->notifierIs(mib);
    counter->isRegisteredNotifieeIs(true);

    feed.start();
    // The worker's first act is a reload of the unchanged file; let it pass.
    while (feed.reloads() < 2) usleep(1000);
    feed.handleEvent();

    // One reload: the file replaced by the other version, until applied and the worker idle.
    bool inPlaceOnly = true;
    std::size_t round = 0;
    auto reloadOnce = [&](double& cpu, double& loop) {
        const std::uint64_t applied = feed.applies();
        const std::size_t logged = log.size();
        {
            std::ofstream f(path + ".tmp", std::ios::binary);
            f << (round++ % 2 == 0 ? second : first);
        }
        const double p0 = processCpu();
        std::filesystem::rename(path + ".tmp", path);
        pollfd pfd{feed.eventFd(), POLLIN, 0};
        loop = 0;
        while (feed.applies() == applied) {
            poll(&pfd, 1, 10000);
            const double a0 = threadCpu();
            feed.handleEvent();
            Orbel::ActivityLoop::instance().runPending();
            loop += threadCpu() - a0;
        }
        // The worker may still be releasing what it parsed after it posted: wait until it is
        // idle, so that its whole share is counted (an idle wait costs no CPU).
        usleep(100000);
        cpu = processCpu() - p0;
        for (std::size_t i = logged; i < log.size(); ++i)
            if (log[i].find(
                    "applied 1 change (daemons: 0 added, 0 removed; rows: 0 added, 0 removed; 1 changed in place)") ==
                std::string::npos)
                inPlaceOnly = false;
    };

    // Back to back: each reload reuses the memory the previous one released.
    std::vector<double> reload, apply;
    for (std::size_t r = 0; r < rounds; ++r) {
        double cpu = 0, loop = 0;
        reloadOnce(cpu, loop);
        reload.push_back(cpu);
        apply.push_back(loop);
    }
    // After the worker went idle and handed that memory back to the system: the hand-back
    // itself, and a reload that must fault its memory in again.
    std::vector<double> release, cold;
    for (std::size_t r = 0; r < coldRounds; ++r) {
        const double c0 = processCpu();
        usleep(1500000);
        release.push_back(processCpu() - c0);
        double cpu = 0, loop = 0;
        reloadOnce(cpu, loop);
        cold.push_back(cpu);
    }
    feed.stop();

    std::vector<const void*> after;
    for (auto it = mib->optionTable().begin(); !it.isEnd(); ++it) after.push_back(it.ptr());
    for (auto it = mib->dataTable().begin(); !it.isEnd(); ++it) after.push_back(it.ptr());
    for (auto it = mib->enabledTable().begin(); !it.isEnd(); ++it) after.push_back(it.ptr());
    const bool sameRows = before == after;
    counter->isRegisteredNotifieeIs(false);
    watch.stop();

    std::printf(
        "{\"key_rows\": %zu, \"model_rows\": %zu, \"file_bytes\": %zu, \"rounds\": %zu, "
        "\"parse_s\": %.6f, \"reload_s\": %.6f, \"apply_s\": %.9f, \"ratio\": %.4f, "
        "\"parse_after_release_s\": %.6f, \"reload_after_release_s\": %.6f, "
        "\"ratio_after_release\": %.4f, \"release_s\": %.6f, "
        "\"history_rows\": %zu, \"rows_told\": %zu, \"same_row_objects\": %s, \"in_place_only\": %s, \"last_log\": "
        "\"%s\"}\n",
        rows, modelRows, first.size(), rounds, median(parse), median(reload), median(apply),
        median(reload) / median(parse), median(coldParse), median(cold), median(cold) / median(coldParse),
        median(release), history.size(), counter->told, sameRows ? "true" : "false", inPlaceOnly ? "true" : "false",
        log.empty() ? "" : log.back().c_str());
    std::filesystem::remove(path);
    return 0;
}
