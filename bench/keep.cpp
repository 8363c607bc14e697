// SPDX-License-Identifier: MIT
// What it costs that sent messages are kept for a while: two queue managers take turns, one keeps, the other does not.
#include <algorithm>

#include <fmt/format.h>

#include "measure.h"

namespace kvr::bench {

namespace {

struct Size {
    std::size_t body;
    std::uint64_t messages;
};

/// Several times as many bytes as are kept, so that nearly all of the time as many leave as come.
constexpr std::array kSizes = {Size{1024, 300000}, Size{16384, 30000}};
constexpr std::uint64_t kQuickPart = 50;
constexpr double kWanted = 0.95;
constexpr double kWantedMemory = 1.1;

struct Series {
    std::vector<double> rate; ///< messages per second
    std::vector<double> cpu;  ///< microseconds per message
    long peak_kib = 0;
};

void drain(const Setup& setup, EmbeddedHost& host, const Message& message, std::uint64_t count, Series& series) {
    host.fill(message, count);
    const Sample sample =
        measure(*setup.sink, count * wire_bytes(message), {"channel", true, [&host] { return host.start(); }});
    series.rate.push_back(static_cast<double>(count) / sample.seconds);
    series.cpu.push_back(sample.cpu / static_cast<double>(count) * 1e6);
    series.peak_kib = std::max(series.peak_kib, sample.peak_kib);
}

} // namespace

void measure_keep(const Setup& setup) {
    table("Kept messages (KEEPINT=600, KEEPMAX=64)",
          {"bytes", "kept off, msg/s", "kept, msg/s", "kept / off", "off, us CPU", "kept, us CPU", "off, peak MiB",
           "kept, peak MiB"});
    for (const Size& size : kSizes) {
        const Message message(size.body);
        const std::uint64_t count = setup.quick ? size.messages / kQuickPart : size.messages;
        const auto make = [&](const char* name, const std::vector<std::string>& attributes) {
            return EmbeddedHost(setup.program, setup.dir, fmt::format("{}{}", name, size.body), setup.sink->port(),
                                attributes);
        };
        EmbeddedHost hosts[] = {make("OFF", {}), make("KEPT", {"KEEPINT=600", "KEEPMAX=64"})};
        Series series[2];
        std::vector<double> ratios;
        for (int round = 0; round < setup.rounds; ++round) {
            progress(fmt::format("kept, {} bytes: round {}", size.body, round + 1));
            for (const int turn : {round % 2, 1 - round % 2}) {
                drain(setup, hosts[turn], message, count, series[turn]);
            }
            ratios.push_back(series[1].rate.back() / series[0].rate.back());
        }
        const auto mib = [](long kib) { return fmt::format("{:.1f}", static_cast<double>(kib) / 1024); };
        row({fmt::format("{}", size.body), fmt::format("{:.0f}", median(series[0].rate)),
             fmt::format("{:.0f}", median(series[1].rate)), fmt::format("{:.3f}", median(ratios)),
             fmt::format("{:.1f}", median(series[0].cpu)), fmt::format("{:.1f}", median(series[1].cpu)),
             mib(series[0].peak_kib), mib(series[1].peak_kib)});
        target(fmt::format("{} bytes: at least {} of the drain rate where messages are kept", size.body, kWanted),
               median(ratios) >= kWanted, fmt::format("{:.3f}", median(ratios)));
        target(
            fmt::format("{} bytes: memory at most {} times as much where messages are kept", size.body, kWantedMemory),
            static_cast<double>(series[1].peak_kib) <= kWantedMemory * static_cast<double>(series[0].peak_kib),
            fmt::format("{} MiB", mib(series[1].peak_kib)));
    }
}

} // namespace kvr::bench
