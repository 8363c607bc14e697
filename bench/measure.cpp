// SPDX-License-Identifier: MIT
#include "measure.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

#include <fmt/format.h>

#include "senders.h"

namespace kvr::bench {

namespace {

std::vector<std::vector<std::string>>& targets() {
    static std::vector<std::vector<std::string>> all;
    return all;
}

} // namespace

std::array<Sender, 3> make_senders(const Setup& setup, const Message& message, const Feed& feed,
                                   const EmbeddedHost& host) {
    const std::uint16_t port = setup.sink->port();
    return {
        {{"bare", false, [&, port] { return spawn([&] { run_bare_sender(message, feed, port); }); }},
         {"plug-in", false, [&, port] { return spawn([&] { run_memory_host(message, feed, port, setup.plugin); }); }},
         {"channel", true, [&] { return host.start(); }}}};
}

long peak_kib(pid_t pid) {
    std::ifstream status(fmt::format("/proc/{}/status", pid));
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:")) {
            return std::strtol(line.c_str() + sizeof("VmHWM:"), nullptr, 10);
        }
    }
    return 0;
}

Sample measure(Sink& sink, std::uint64_t bytes, const Sender& sender) {
    sink.expect(bytes);
    const pid_t pid = sender.start();
    sink.watch(pid);
    sink.wait_first();
    sink.wait_last();
    const Sample sample{static_cast<double>(sink.last_ns() - sink.first_ns()) / 1e9, sink.cpu(), peak_kib(pid)};
    end_process(pid, sender.worker);
    return sample;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const double rank = std::ceil(p * static_cast<double>(values.size()));
    return values.at(static_cast<std::size_t>(std::max(rank, 1.0)) - 1);
}

double median(const std::vector<double>& values) {
    return percentile(values, 0.5);
}

void row(const std::vector<std::string>& cells) {
    std::string line = "|";
    for (const std::string& cell : cells) {
        line += " " + cell + " |";
    }
    std::puts(line.c_str());
    std::fflush(stdout);
}

void table(const std::string& heading, const std::vector<std::string>& columns) {
    fmt::print("\n### {}\n\n", heading);
    row(columns);
    row(std::vector<std::string>(columns.size(), "---:"));
}

void progress(const std::string& text) {
    fmt::print(stderr, "{}\n", text);
}

void target(const std::string& text, bool met, const std::string& shown) {
    targets().push_back({text, shown, met ? "met" : "**not met**"});
}

void print_targets() {
    table("Targets", {"target", "measured", "outcome"});
    for (const std::vector<std::string>& entry : targets()) {
        row(entry);
    }
}

} // namespace kvr::bench
