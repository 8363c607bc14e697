// SPDX-License-Identifier: MIT
// What the sections share: the set-up of a run, the three senders, one measurement, statistics, and the report.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "embedded_host.h"
#include "message.h"
#include "sink.h"

namespace kvr::bench {

/// What a run works with.
struct Setup {
    Sink* sink;
    std::filesystem::path program; ///< kvr
    std::filesystem::path plugin;
    std::filesystem::path dir; ///< scratch folder on the file system that the queues are to lie on
    int rounds;
    bool quick; ///< a smoke run: everything once and small
};

/// One way of sending a message. `start` returns the sender's process.
struct Sender {
    const char* name;
    bool worker; ///< a worker process, to be stopped at a safe point
    std::function<pid_t()> start;
};

/// The bare sender, the plug-in on the memory host, the whole channel. The references must outlive the result.
std::array<Sender, 3> make_senders(const Setup& setup, const Message& message, const Feed& feed,
                                   const EmbeddedHost& host);

struct Sample {
    double seconds; ///< from the first byte behind the bind frame to the last one, as the sink saw them
    double cpu;     ///< seconds of CPU of the sending process meanwhile
    long peak_kib;  ///< greatest resident memory of the process so far
};

/// Starts a sender, waits until `bytes` have arrived, and ends it.
Sample measure(Sink& sink, std::uint64_t bytes, const Sender& sender);

/// Greatest resident memory of a process so far, pages of mapped files included.
long peak_kib(pid_t pid);

/// The value that a share `p` of the values does not exceed.
double percentile(std::vector<double> values, double p);
double median(const std::vector<double>& values);

/// A markdown table on standard output; progress on standard error.
void table(const std::string& heading, const std::vector<std::string>& columns);
void row(const std::vector<std::string>& cells);
void progress(const std::string& text);
/// Notes the outcome of a target; print_targets shows them all.
void target(const std::string& text, bool met, const std::string& shown);
void print_targets();

// The sections.
void measure_messages(const Setup& setup);
void measure_files(const Setup& setup);
void measure_delays(const Setup& setup);
void measure_depths(const Setup& setup);
void measure_keep(const Setup& setup);
void measure_listener(const Setup& setup);
void measure_units(const Setup& setup);

} // namespace kvr::bench
