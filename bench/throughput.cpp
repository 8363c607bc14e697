// SPDX-License-Identifier: MIT
// Messages per second and CPU per message of the three senders over a range of sizes, and the throughput of attached
// files against a bare loop that reads and writes the same chunks.
#include <fstream>

#include <fmt/format.h>

#include "measure.h"

namespace kvr::bench {

namespace {

struct Size {
    std::size_t body;
    std::uint64_t messages;
};

/// Long enough for the socket's buffers to have grown: with a tenth of the large ones the ratios went up and down by a
/// third.
constexpr std::array kSizes = {Size{0, 100000}, Size{256, 100000}, Size{1024, 100000}, Size{16384, 60000},
                               Size{1048576, 2000}};
constexpr std::uint64_t kQuickPart = 20;
constexpr std::size_t kFileSize = 64UL << 20;
constexpr std::size_t kQuickFileSize = 4UL << 20;
constexpr std::size_t kFiles = 8;

constexpr std::size_t kTargetBody = 1024;
constexpr double kWantedPlugin = 0.9;
constexpr double kWantedFiles = 0.9;
constexpr double kWantedChannel = 50000.0 / 90000.0;

/// Figures of one sender, one entry per round.
struct Series {
    std::vector<double> rate;  ///< messages per second
    std::vector<double> cpu;   ///< microseconds per message
    std::vector<double> ratio; ///< of the rate, to the bare sender's in the same round
};

/// All rounds of the three senders with `count` messages each.
std::array<Series, 3> compete(const Setup& setup, const std::string& name, const Message& message,
                              std::uint64_t count) {
    EmbeddedHost host(setup.program, setup.dir, name, setup.sink->port());
    const Feed feed = Feed::backlog(count);
    const auto senders = make_senders(setup, message, feed, host);
    const std::uint64_t bytes = count * wire_bytes(message);
    const double messages = static_cast<double>(count);
    std::array<Series, 3> result;
    for (int round = 0; round < setup.rounds; ++round) {
        progress(fmt::format("{}: round {}", name, round + 1));
        host.fill(message, count);
        for (std::size_t i = 0; i < senders.size(); ++i) {
            const Sample sample = measure(*setup.sink, bytes, senders[i]);
            result[i].rate.push_back(messages / sample.seconds);
            result[i].cpu.push_back(sample.cpu / messages * 1e6);
            result[i].ratio.push_back(result[i].rate.back() / result[0].rate.back());
        }
    }
    return result;
}

} // namespace

void measure_messages(const Setup& setup) {
    table("Messages", {"bytes", "bare, msg/s", "plug-in, msg/s", "channel, msg/s", "plug-in / bare", "channel / bare",
                       "bare, us CPU", "plug-in, us CPU", "channel, us CPU"});
    for (const Size& size : kSizes) {
        const auto [bare, plugin, channel] = compete(setup, fmt::format("SIZE{}", size.body), Message(size.body),
                                                     setup.quick ? size.messages / kQuickPart : size.messages);
        row({fmt::format("{}", size.body), fmt::format("{:.0f}", median(bare.rate)),
             fmt::format("{:.0f}", median(plugin.rate)), fmt::format("{:.0f}", median(channel.rate)),
             fmt::format("{:.2f}", median(plugin.ratio)), fmt::format("{:.2f}", median(channel.ratio)),
             fmt::format("{:.1f}", median(bare.cpu)), fmt::format("{:.1f}", median(plugin.cpu)),
             fmt::format("{:.1f}", median(channel.cpu))});
        target(fmt::format("{} bytes: plug-in at least {} of the bare sender", size.body, kWantedPlugin),
               median(plugin.ratio) >= kWantedPlugin, fmt::format("{:.2f}", median(plugin.ratio)));
        if (size.body == kTargetBody) {
            target(fmt::format("{} bytes: channel, fully durable, at least {:.2f} of the bare sender (50,000 messages "
                               "per second where it makes 90,000)",
                               size.body, kWantedChannel),
                   median(channel.ratio) >= kWantedChannel, fmt::format("{:.2f}", median(channel.ratio)));
        }
    }
}

void measure_files(const Setup& setup) {
    const std::size_t file_size = setup.quick ? kQuickFileSize : kFileSize;
    const std::filesystem::path path = setup.dir / "attached.dat";
    std::ofstream(path, std::ios::binary) << std::string(file_size, 'f');
    const Message message(0, std::vector<std::string>(kFiles, path.string()));
    const auto [bare, plugin, channel] = compete(setup, "FILES", message, 1);
    std::filesystem::remove(path);

    table(fmt::format("Files: a message with {} attachments of {} MiB", kFiles, file_size >> 20),
          {"bare loop, MiB/s", "plug-in, MiB/s", "channel, MiB/s", "plug-in / bare", "channel / bare"});
    const double mib = static_cast<double>(kFiles * file_size) / (1 << 20);
    row({fmt::format("{:.0f}", median(bare.rate) * mib), fmt::format("{:.0f}", median(plugin.rate) * mib),
         fmt::format("{:.0f}", median(channel.rate) * mib), fmt::format("{:.2f}", median(plugin.ratio)),
         fmt::format("{:.2f}", median(channel.ratio))});
    target(fmt::format("files: channel at least {} of the bare loop", kWantedFiles),
           median(channel.ratio) >= kWantedFiles, fmt::format("{:.2f}", median(channel.ratio)));
}

} // namespace kvr::bench
