// SPDX-License-Identifier: MIT
// Delay of single messages and of bursts of three: from the put to the arrival of the message's last byte. The sender
// is idle when a message comes.
#include <chrono>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>
#include <unistd.h>

#include "measure.h"
#include "senders.h"

namespace kvr::bench {

namespace {

constexpr std::size_t kBody = 1024;
constexpr std::size_t kBurst = 3;
constexpr std::size_t kSamples = 400; ///< per round
constexpr std::size_t kQuickSamples = 50;
constexpr auto kPause = std::chrono::milliseconds(2); ///< long enough for the sender to be idle again
constexpr double kWantedMs = 5;

/// Delays in milliseconds.
struct Series {
    std::vector<double> whole; ///< from before the put
    std::vector<double> line;  ///< from its end
    std::vector<double> put;   ///< the put itself
};

/// Makes messages due.
using Release = std::function<void(std::size_t count)>;

/// One round of one sender.
void run_round(const Setup& setup, const Sender& sender, const Release& release, std::size_t burst, Series& series) {
    Sink& sink = *setup.sink;
    const std::uint64_t length = wire_bytes(Message(kBody));
    // The first message, not counted, brings the line up.
    sink.expect(length, length);
    const pid_t pid = sender.start();
    release(1);
    sink.wait_first();
    sink.wait_last();
    std::uint64_t arrived = 1;
    for (std::size_t i = 0; i < (setup.quick ? kQuickSamples : kSamples); ++i) {
        std::this_thread::sleep_for(kPause);
        sink.expect((arrived + burst) * length, length);
        const std::int64_t before = now_ns();
        release(burst);
        const std::int64_t after = now_ns();
        sink.wait_last();
        series.put.push_back(static_cast<double>(after - before) / 1e6);
        for (std::size_t n = 0; n < burst; ++n) {
            const std::int64_t arrival = sink.arrival_ns(arrived++);
            series.whole.push_back(static_cast<double>(arrival - before) / 1e6);
            series.line.push_back(static_cast<double>(arrival - after) / 1e6);
        }
    }
    end_process(pid, sender.worker);
}

std::string cells(const std::vector<double>& values) {
    return fmt::format("{:.3f} / {:.3f} / {:.3f} / {:.3f}", percentile(values, 0.5), percentile(values, 0.99),
                       percentile(values, 0.999), percentile(values, 1));
}

} // namespace

void measure_delays(const Setup& setup) {
    const Message message(kBody);
    EmbeddedHost host(setup.program, setup.dir, "DELAY", setup.sink->port());
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0) {
        throw std::runtime_error("no pipe for the senders");
    }
    const Feed feed = Feed::pipe(ends[0]);
    const Release write_pipe = [&ends](std::size_t count) {
        const std::string bytes(count, '.');
        if (write(ends[1], bytes.data(), count) != static_cast<ssize_t>(count)) {
            throw std::runtime_error("the pipe of the senders is closed");
        }
    };
    const Release put = [&](std::size_t count) { host.put(message, count); };
    const auto senders = make_senders(setup, message, feed, host);

    table(fmt::format("Delay of a message of {} bytes, in ms: p50 / p99 / p99.9 / greatest", kBody),
          {"messages", "sender", "from before the put", "from the end of the put", "the put itself"});
    for (const std::size_t burst : {std::size_t{1}, kBurst}) {
        std::array<Series, 3> series;
        for (int round = 0; round < setup.rounds; ++round) {
            progress(fmt::format("delays, {} at a time: round {}", burst, round + 1));
            for (std::size_t i = 0; i < senders.size(); ++i) {
                run_round(setup, senders[i], senders[i].worker ? put : write_pipe, burst, series[i]);
            }
        }
        for (std::size_t i = 0; i < senders.size(); ++i) {
            row({burst == 1 ? "one" : "burst of three", senders[i].name, cells(series[i].whole), cells(series[i].line),
                 cells(series[i].put)});
            if (burst > 1 && i > 0) {
                const double late = percentile(series[i].line, 1);
                target(
                    fmt::format("{}: no message of a burst later than {} ms after its put", senders[i].name, kWantedMs),
                    late <= kWantedMs, fmt::format("{:.2f} ms", late));
            }
        }
    }
    close(ends[0]);
    close(ends[1]);
}

} // namespace kvr::bench
