// SPDX-License-Identifier: MIT
// Messages per second that a listener stores, with and without taking each once, and that it leaves out as repeats.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <fmt/format.h>
#include <unistd.h>

#include "measure.h"
#include "senders.h"
#include "store/store.h"

namespace kvr::bench {

namespace {

struct Size {
    std::size_t body;
    std::uint64_t messages;
};

constexpr std::array kSizes = {Size{0, 150000}, Size{1024, 100000}, Size{16384, 20000}, Size{1048576, 400}};
constexpr std::uint64_t kQuickPart = 20;
constexpr std::size_t kTargetBody = 1024;
constexpr double kWanted = 0.8;
constexpr std::uint64_t kRemembered = 262144; ///< the option's default
constexpr useconds_t kLook = 1000;
constexpr std::chrono::minutes kLongest{2};

/// One way to run the listener, with an entry for each round.
struct Way {
    bool take_once;
    bool repeats; ///< it gets what it has got already
    std::vector<double> rate{};
    std::vector<double> ratio{}; ///< to the first way's in the same round
    double first = 0;            ///< longest time of a first message
    long peak_kib = 0;
};

class Receiver {
  public:
    explicit Receiver(const Setup& setup) : setup_(setup), home_(setup.dir / "listener") {
        std::filesystem::create_directory(home_);
        Store::create(home_ / "RECEIVER", "RECEIVER", {});
        store_ = Store::open(home_ / "RECEIVER");
        store_->queue_define(kDestQueue, "");
    }

    /// As many identities as a listener remembers, so that it forgets one for each that it takes.
    void fill_memory() {
        constexpr std::uint64_t kGroup = 256;
        const Message message(0);
        const std::vector<OutgoingMessage> group(kGroup, {&message.descriptor, {}, message.data});
        std::vector<MessageIdentity> identities(kGroup);
        for (std::uint64_t next = 0; next < kRemembered;) {
            for (MessageIdentity& identity : identities) {
                std::memcpy(identity.data(), &++next, sizeof next);
            }
            (void)store_->put_once(kDestQueue, group, identities, kRemembered);
        }
        empty();
    }

    void empty() {
        store_->queue_delete(kDestQueue, true);
        store_->queue_define(kDestQueue, "");
    }

    /// Starts a listener, sends it one message, which makes it ready, and takes the time of `count` others.
    void measure(const Message& message, std::uint64_t count, std::uint64_t series, Way& way) {
        const pid_t listener = start(way.take_once);
        const std::uint16_t port = wait_for_port();
        const double first = send(Message(0), 0, series, 1, port);
        way.first = std::max(way.first, first);
        way.rate.push_back(static_cast<double>(count) /
                           send(message, count, series, way.repeats ? 1 : count + 1, port));
        way.peak_kib = std::max(way.peak_kib, peak_kib(listener));
        end_process(listener, true);
    }

  private:
    /// Sends so many messages and one more that is always new. Returns the seconds until that and all before it, of
    /// which so many are new in all, are on the queue.
    double send(const Message& message, std::uint64_t count, std::uint64_t series, std::uint64_t fresh,
                std::uint16_t port) {
        const std::uint64_t expected = store_->queue_info(kDestQueue).depth + fresh;
        const auto begin = std::chrono::steady_clock::now();
        const std::uint64_t last = ++lasts_;
        const pid_t sender = spawn([&] { send_series(message, count, series, last, port); });
        while (store_->queue_info(kDestQueue).depth < expected) {
            if (std::chrono::steady_clock::now() - begin > kLongest) {
                throw std::runtime_error("the listener did not store what was sent");
            }
            usleep(kLook);
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        end_process(sender);
        return time.count();
    }

    [[nodiscard]] std::filesystem::path port_file() const { return home_ / "port"; }

    [[nodiscard]] pid_t start(bool take_once) const {
        std::filesystem::remove(port_file());
        const std::string port = "--port-file=" + port_file().string();
        const std::string home = "--home=" + home_.string();
        return spawn([&] {
            if (std::freopen((home_ / "log").c_str(), "w", stderr) == nullptr) {
                return;
            }
            execl(setup_.program.c_str(), "kvr", home.c_str(), "listen", "--address=127.0.0.1", "--port=0",
                  port.c_str(), take_once ? "--take-once" : nullptr, nullptr);
        });
    }

    [[nodiscard]] std::uint16_t wait_for_port() const {
        for (const auto end = std::chrono::steady_clock::now() + kLongest; std::chrono::steady_clock::now() < end;) {
            std::ifstream file(port_file());
            std::string line;
            if (std::getline(file, line) && !file.eof()) {
                return static_cast<std::uint16_t>(std::stoul(line));
            }
            usleep(kLook);
        }
        throw std::runtime_error("the listener did not start: " + (home_ / "log").string());
    }

    const Setup& setup_;
    std::filesystem::path home_;
    std::shared_ptr<Store> store_;
    std::uint64_t lasts_ = 0;
};

} // namespace

void measure_listener(const Setup& setup) {
    table("Listener, taking each message once and not",
          {"bytes", "without, msg/s", "with, msg/s", "with / without", "repeats left out, msg/s", "first message, ms",
           "peak memory, MiB"});
    Receiver receiver(setup);
    receiver.fill_memory();
    std::uint64_t series = 0;
    for (const auto& [body, messages] : kSizes) {
        const Message message(body);
        const std::uint64_t count = setup.quick ? messages / kQuickPart : messages;
        std::array<Way, 3> ways{{{.take_once = false, .repeats = false},
                                 {.take_once = true, .repeats = false},
                                 {.take_once = true, .repeats = true}}};
        for (int round = 0; round < setup.rounds; ++round) {
            progress(fmt::format("listener, {} bytes: round {}", body, round + 1));
            ++series;
            for (Way& way : ways) {
                receiver.measure(message, count, series, way);
                way.ratio.push_back(way.rate.back() / ways[0].rate.back());
                receiver.empty();
            }
        }
        const auto& [without, with, repeats] = ways;
        row({fmt::format("{}", body), fmt::format("{:.0f}", median(without.rate)),
             fmt::format("{:.0f}", median(with.rate)), fmt::format("{:.2f}", median(with.ratio)),
             fmt::format("{:.0f}", median(repeats.rate)),
             fmt::format("{:.0f}, {:.0f}", without.first * 1e3, with.first * 1e3),
             fmt::format("{:.1f}, {:.1f}", static_cast<double>(without.peak_kib) / 1024,
                         static_cast<double>(with.peak_kib) / 1024)});
        if (body == kTargetBody) {
            target(fmt::format("{} bytes: a listener that takes each message once, at least {} of one that does not",
                               body, kWanted),
                   median(with.ratio) >= kWanted, fmt::format("{:.2f}", median(with.ratio)));
        }
    }
}

} // namespace kvr::bench
