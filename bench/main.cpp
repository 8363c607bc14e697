// SPDX-License-Identifier: MIT
// kvr_bench: speed and memory of the channel, as ratios against a bare sender that is measured in the same run, round
// by round. Prints the report as markdown to standard output; README.md says what it means.
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sched.h>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "measure.h"

namespace kvr::bench {

namespace {

std::string first_field(const std::string& file, const std::string& key) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(key)) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown";
}

/// Type of the file system below a folder: that of the longest mount point which is a prefix of its path.
std::string file_system(const std::filesystem::path& dir) {
    std::ifstream mounts("/proc/mounts");
    std::string best = "unknown";
    std::size_t length = 0;
    std::string device;
    std::string point;
    std::string type;
    std::string rest;
    while (mounts >> device >> point >> type && std::getline(mounts, rest)) {
        const std::string path = dir.string();
        const bool inside = point == "/" || path == point || path.starts_with(point + "/");
        if (inside && point.size() >= length) {
            length = point.size();
            best = type;
        }
    }
    return best;
}

void print_machine(const Setup& setup) {
    utsname system{};
    uname(&system);
    const std::time_t now = std::time(nullptr);
    const std::string type = file_system(setup.dir);
    double load = 0;
    getloadavg(&load, 1);
    struct sysinfo memory {};
    sysinfo(&memory);
    std::string congestion;
    std::ifstream("/proc/sys/net/ipv4/tcp_congestion_control") >> congestion;
    const char* priority = sched_getscheduler(0) == SCHED_OTHER ? "" : "real-time priority, ";
    fmt::print("{}, {} cores, {} GiB memory, Linux {}, TCP {}, queues on {}, g++ {}, {:%Y-%m-%d}, {} rounds, {}load "
               "{:.1f} at the start\n",
               first_field("/proc/cpuinfo", "model name"), get_nprocs(),
               (memory.totalram * memory.mem_unit + (1UL << 29)) >> 30, system.release, congestion, type, __VERSION__,
               fmt::localtime(now), setup.rounds, priority, load);
    if (type == "tmpfs") {
        fmt::print("\nThe queues lie in memory: figures of the whole channel say nothing about durable queues. Give "
                   "--dir on a disk.\n");
    }
}

struct Options {
    std::string program;
    std::string plugin;
    std::string dir = std::filesystem::temp_directory_path().string();
    std::vector<std::string> sections = {"messages", "files", "delays", "depths", "keep", "listener", "units"};
    int rounds = 5;
    bool quick = false;
};

void run(const Options& options) {
    std::string scratch = (std::filesystem::path(options.dir) / "kvr-bench-XXXXXX").string();
    if (mkdtemp(scratch.data()) == nullptr) {
        throw std::runtime_error(fmt::format("cannot make a folder in {}: give --dir", options.dir));
    }
    try {
        Sink sink;
        const Setup setup{&sink,        options.program, options.plugin, scratch, options.quick ? 1 : options.rounds,
                          options.quick};
        print_machine(setup);
        for (const std::string& section : options.sections) {
            if (section == "messages") {
                measure_messages(setup);
            } else if (section == "files") {
                measure_files(setup);
            } else if (section == "delays") {
                measure_delays(setup);
            } else if (section == "keep") {
                measure_keep(setup);
            } else if (section == "depths") {
                measure_depths(setup);
            } else if (section == "units") {
                measure_units(setup);
            } else {
                measure_listener(setup);
            }
        }
        print_targets();
    } catch (...) {
        std::filesystem::remove_all(scratch);
        throw;
    }
    std::filesystem::remove_all(scratch);
}

} // namespace

} // namespace kvr::bench

int main(int argc, char** argv) {
    try {
        const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe").parent_path();
        kvr::bench::Options options;
        options.program = (own / "kvr").string();
        options.plugin = (own.parent_path() / "lib" / "libplug_kavro_chls.so").string();
        CLI::App app("Measures the channel against a bare sender, on loopback; prints a report in markdown.",
                     "kvr_bench");
        app.add_option("--kvr", options.program, "The program kvr [beside this one]")->check(CLI::ExistingFile);
        app.add_option("--plugin", options.plugin, "The plug-in [../lib/libplug_kavro_chls.so]")
            ->check(CLI::ExistingFile);
        app.add_option("--dir", options.dir, "Folder for the queues, on the disk to be measured")
            ->check(CLI::ExistingDirectory)
            ->capture_default_str();
        app.add_option("--rounds", options.rounds, "Rounds, of which the medians are shown")
            ->check(CLI::Range(1, 1000))
            ->capture_default_str();
        app.add_option("--section", options.sections, "messages, files, delays, depths, keep, listener, units [all]")
            ->check(CLI::IsMember({"messages", "files", "delays", "depths", "keep", "listener", "units"}));
        app.add_flag("--quick", options.quick, "Everything once and small: does it run at all?");
        CLI11_PARSE(app, argc, argv);
        kvr::bench::run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kvr_bench: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
