// SPDX-License-Identifier: MIT
// Cost per message and memory of the worker, over the depth of the queue and for the longest file.
#include <fstream>
#include <map>
#include <memory>

#include <fmt/format.h>

#include "measure.h"
#include "senders.h"

namespace kvr::bench {

namespace {

constexpr std::size_t kBody = 1024;
constexpr std::array<std::uint64_t, 3> kDepths = {1000, 100000, 1000000};
constexpr std::array<std::uint64_t, 3> kQuickDepths = {1000, 5000, 20000};
/// Messages of a sample: taken from a queue of the full depth, which is then filled up again.
constexpr std::uint64_t kSample = 30000;
constexpr long kWantedKib = 32L << 10;
constexpr double kWantedGrowth = 1.15;
constexpr std::uintmax_t kLongestFile = 99999999;

struct Series {
    std::vector<double> rate;
    std::vector<double> cpu; ///< microseconds per message
    long peak_kib = 0;

    void add(double messages, double seconds, double cpu_time, long peak) {
        rate.push_back(messages / seconds);
        cpu.push_back(cpu_time / messages * 1e6);
        peak_kib = std::max(peak_kib, peak);
    }
};

/// Sends `count` messages of a queue that holds at least as many.
Sample drain(const Setup& setup, const EmbeddedHost& host, const Message& message, std::uint64_t count) {
    return measure(*setup.sink, count * wire_bytes(message), {"channel", true, [&host] { return host.start(); }});
}

/// A shallow queue is emptied within milliseconds, so one worker empties it again and again: each time it is filled to
/// the depth by one commit.
void sample_shallow(const Setup& setup, EmbeddedHost& host, const Message& message, std::uint64_t depth,
                    std::uint64_t count, Series& series) {
    Sink& sink = *setup.sink;
    const std::uint64_t length = wire_bytes(message);
    const std::uint64_t fills = std::min<std::uint64_t>(count / depth, Sink::kArrivals / depth);
    sink.expect(length, length);
    host.put(message, 1);
    const pid_t pid = host.start();
    sink.wait_first();
    sink.wait_last();
    double seconds = 0;
    double cpu = 0;
    std::uint64_t arrived = 1;
    for (std::uint64_t i = 0; i < fills; ++i) {
        sink.expect((arrived + depth) * length, length);
        const double cpu_before = cpu_seconds(pid);
        host.put(message, depth);
        sink.wait_last();
        cpu += cpu_seconds(pid) - cpu_before;
        seconds += static_cast<double>(sink.last_ns() - sink.arrival_ns(arrived)) / 1e9;
        arrived += depth;
    }
    series.add(static_cast<double>(fills * depth), seconds, cpu, peak_kib(pid));
    end_process(pid, true);
}

/// Peak memory of a worker that sends one file of the greatest length.
long peak_with_file(const Setup& setup) {
    const std::filesystem::path path = setup.dir / "longest.dat";
    // Sparse: its zeros are read all the same.
    std::ofstream(path).close();
    std::filesystem::resize_file(path, kLongestFile);
    const Message message(0, {path.string()});
    EmbeddedHost host(setup.program, setup.dir, "LONGFILE", setup.sink->port());
    host.put(message, 1);
    const Sample sample = drain(setup, host, message, 1);
    std::filesystem::remove(path);
    return sample.peak_kib;
}

} // namespace

void measure_depths(const Setup& setup) {
    const Message message(kBody);
    const auto& depths = setup.quick ? kQuickDepths : kDepths;
    std::map<std::uint64_t, std::unique_ptr<EmbeddedHost>> hosts;
    std::map<std::uint64_t, Series> series;
    for (const std::uint64_t depth : depths) {
        progress(fmt::format("filling a queue with {} messages", depth));
        hosts[depth] =
            std::make_unique<EmbeddedHost>(setup.program, setup.dir, fmt::format("DEPTH{}", depth), setup.sink->port());
    }
    const std::uint64_t count = std::min(kSample, depths.back());
    for (int round = 0; round < setup.rounds; ++round) {
        for (const std::uint64_t depth : depths) {
            progress(fmt::format("depth {}: round {}", depth, round + 1));
            if (depth < count) {
                sample_shallow(setup, *hosts[depth], message, depth, count, series[depth]);
            } else {
                hosts[depth]->fill(message, depth);
                const Sample sample = drain(setup, *hosts[depth], message, count);
                series[depth].add(static_cast<double>(count), sample.seconds, sample.cpu, sample.peak_kib);
            }
        }
    }
    // The greatest depth once to its end: what the whole queue leaves in the worker's memory.
    const std::uint64_t deepest = depths.back();
    progress(fmt::format("draining {} messages", deepest));
    hosts[deepest]->fill(message, deepest);
    const Sample drained = drain(setup, *hosts[deepest], message, deepest);
    const long file_peak = peak_with_file(setup);

    table(fmt::format("Depth of the queue (messages of {} bytes) and memory of the worker", kBody),
          {"depth", "msg/s", "us CPU per message", "CPU against the first row", "peak memory, MiB"});
    const double base = median(series[depths.front()].cpu);
    long worst_peak = std::max(drained.peak_kib, file_peak);
    double worst_growth = 0;
    const auto mib = [](long kib) { return fmt::format("{:.1f}", static_cast<double>(kib) / 1024); };
    for (const std::uint64_t depth : depths) {
        const Series& figures = series[depth];
        const double cpu = median(figures.cpu);
        worst_growth = std::max(worst_growth, cpu / base);
        worst_peak = std::max(worst_peak, figures.peak_kib);
        row({fmt::format("{}", depth), fmt::format("{:.0f}", median(figures.rate)), fmt::format("{:.1f}", cpu),
             fmt::format("{:.2f}", cpu / base), mib(figures.peak_kib)});
    }
    const double all = static_cast<double>(deepest);
    row({fmt::format("{}, drained to the end", deepest), fmt::format("{:.0f}", all / drained.seconds),
         fmt::format("{:.1f}", drained.cpu / all * 1e6), fmt::format("{:.2f}", drained.cpu / all * 1e6 / base),
         mib(drained.peak_kib)});
    row({fmt::format("one file of {} bytes", kLongestFile), "", "", "", mib(file_peak)});
    target("peak memory of the worker below 32 MiB at any depth and with the longest file", worst_peak < kWantedKib,
           fmt::format("{} MiB", mib(worst_peak)));
    target(fmt::format("cost per message flat over the depth (at most {:.0f} % more)", (kWantedGrowth - 1) * 100),
           worst_growth <= kWantedGrowth, fmt::format("{:.2f}", worst_growth));
}

} // namespace kvr::bench
