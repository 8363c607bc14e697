// SPDX-License-Identifier: MIT
// What the interface for programs adds to the store's own contract, what a unit of work saves, and takers side by side.
#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kavutil/unique_fd.h"
#include "kvr.h"
#include "measure.h"
#include "senders.h"
#include "store/descriptor.h"
#include "store/store.h"

namespace kvr::bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kQueue = "UNITS";
constexpr std::size_t kBody = 1024;
constexpr std::size_t kUnit = 100;
constexpr std::size_t kSingles = 400; ///< messages of a round that go one by one
constexpr std::size_t kInUnits = 20000;
constexpr std::size_t kSlice = 20; ///< puts or commits until the other way has its turn
constexpr std::size_t kTaken = 100000;
constexpr std::size_t kQuickPart = 20;
constexpr double kWanted = 0.95;
constexpr double kWantedOfUnits = 30;

void check(int result) {
    if (result != KVR_OK) {
        throw std::runtime_error(kvr_error());
    }
}

/// Puts and takes messages one by one or in units of many.
class Way {
  public:
    Way() = default;
    virtual ~Way() = default;
    Way(const Way&) = delete;
    Way& operator=(const Way&) = delete;
    virtual void put(std::size_t count) = 0;
    /// Returns how many there were.
    virtual std::size_t take(std::size_t count) = 0;
};

class Contract final : public Way {
  public:
    Contract(std::shared_ptr<Store> store, const Message& message)
        : store_(std::move(store)), message_(message), taker_(store_->take_from(kQueue)) {}
    void put(std::size_t count) override {
        const auto body = std::span(message_.data).last(message_.body_size());
        descriptors_.assign(count, blank_descriptor());
        bodies_.resize(std::max(count, bodies_.size()));
        std::vector<OutgoingMessage> messages;
        for (std::size_t i = 0; i < count; ++i) { // each with data and an id of its own
            bodies_[i].assign(body.begin(), body.end());
            complete_descriptor(descriptors_[i], "kvr_bench");
            messages.push_back({&descriptors_[i], {}, bodies_[i]});
        }
        store_->put(kQueue, messages);
    }
    std::size_t take(std::size_t count) override {
        places_.clear();
        while (places_.size() < count && taker_->next({}, {}, taken_) == Taken::kMessage) {
            places_.push_back(taken_.sequence);
        }
        const UnitTake take{taker_.get(), places_};
        store_->commit({}, {&take, 1});
        return places_.size();
    }

  private:
    std::shared_ptr<Store> store_;
    const Message& message_;
    std::unique_ptr<Taker> taker_;
    std::vector<T_KAVRO_MD> descriptors_;
    std::vector<std::vector<char>> bodies_;
    TakenMessage taken_;
    std::vector<std::uint64_t> places_;
};

class Interface final : public Way {
  public:
    Interface(const std::filesystem::path& home, const std::string& qmgr) {
        check(kvr_open(home.c_str(), qmgr.c_str(), &qm_));
        check(kvr_message_new(&message_));
    }
    ~Interface() override {
        kvr_message_free(message_);
        kvr_close(qm_);
    }
    Interface(const Interface&) = delete;
    Interface& operator=(const Interface&) = delete;
    void put(std::size_t count) override {
        kvr_message_clear(message_); // each is made anew, with an id of its own
        for (std::size_t i = 0; i < count; ++i) {
            check(kvr_message_set_data(message_, body_.data(), body_.size()));
            check(kvr_put(qm_, kQueue, message_, count > 1 ? KVR_UNIT : 0));
        }
        if (count > 1) {
            check(kvr_commit(qm_));
        }
    }
    std::size_t take(std::size_t count) override {
        kvr_get_options options = KVR_GET_OPTIONS;
        options.flags = count > 1 ? KVR_UNIT : 0;
        std::size_t taken = 0;
        while (taken < count && kvr_get(qm_, kQueue, &options, message_) == KVR_OK) {
            ++taken;
        }
        check(kvr_commit(qm_));
        return taken;
    }

  private:
    kvr_qm* qm_ = nullptr;
    kvr_message* message_ = nullptr;
    std::string body_ = std::string(kBody, 'x');
};

double cpu_now() {
    rusage used{};
    ::getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

struct Cost {
    double seconds = 0;
    double cpu = 0;
};

/// Messages per second and microseconds of CPU, of each round.
struct Series {
    std::vector<double> rate, cpu;
    void add(const Cost& cost, std::size_t messages) {
        rate.push_back(static_cast<double>(messages) / cost.seconds);
        cpu.push_back(cost.cpu / static_cast<double>(messages) * 1e6);
    }
};

struct Operation {
    const char* name;
    bool puts;
    std::size_t unit;
    std::array<Series, 2> by{}; ///< contract, interface
    std::vector<double> ratio{};
};

/// The two ways take turns within the round, so that both meet the same disk.
void measure_round(Operation& operation, const std::array<Way*, 2>& ways, std::size_t messages, int round) {
    std::array<Cost, 2> costs;
    for (std::size_t done = 0; done < messages; done += kSlice * operation.unit) {
        const auto first = (static_cast<std::size_t>(round) + done / (kSlice * operation.unit)) % 2;
        for (const std::size_t way : {first, 1 - first}) {
            const auto begin = Clock::now();
            const double cpu = cpu_now();
            for (std::size_t i = 0; i < kSlice; ++i) {
                operation.puts ? ways.at(way)->put(operation.unit)
                               : static_cast<void>(ways.at(way)->take(operation.unit));
            }
            costs.at(way).cpu += cpu_now() - cpu;
            costs.at(way).seconds += std::chrono::duration<double>(Clock::now() - begin).count();
        }
    }
    for (std::size_t way = 0; way < 2; ++way) {
        operation.by.at(way).add(costs.at(way), messages);
    }
    operation.ratio.push_back(costs[0].seconds / costs[1].seconds);
}

void measure_interface(const Setup& setup, const std::shared_ptr<Store>& store, const Message& message) {
    Contract contract(store, message);
    Interface interface(setup.dir / "units", "UNITS");
    const std::array<Way*, 2> ways{&contract, &interface};
    std::array<Operation, 4> operations{{{"put", true, 1},
                                         {"put, 100 in a unit", true, kUnit},
                                         {"get", false, 1},
                                         {"get, 100 in a unit", false, kUnit}}};
    for (int round = 0; round < setup.rounds; ++round) {
        progress(fmt::format("interface: round {}", round + 1));
        for (Operation& operation : operations) {
            const std::size_t messages = operation.unit == 1 ? kSingles : kInUnits;
            measure_round(operation, ways, setup.quick ? messages / kQuickPart : messages, round);
        }
    }
    for (const Operation& operation : operations) {
        const auto& [own, ours] = operation.by;
        row({operation.name, fmt::format("{:.0f}", median(own.rate)), fmt::format("{:.0f}", median(ours.rate)),
             fmt::format("{:.3f}", median(operation.ratio)), fmt::format("{:.1f}", median(own.cpu)),
             fmt::format("{:.1f}", median(ours.cpu))});
        target(fmt::format("{}: the interface at least {} of the store's own", operation.name, kWanted),
               median(operation.ratio) >= kWanted, fmt::format("{:.3f}", median(operation.ratio)));
    }
    std::vector<double> gain;
    for (std::size_t round = 0; round < operations[0].ratio.size(); ++round) {
        gain.push_back(operations[1].by[1].rate[round] / operations[0].by[1].rate[round]);
    }
    target(fmt::format("100 puts in one unit at least {} times one put", kWantedOfUnits),
           median(gain) >= kWantedOfUnits, fmt::format("{:.0f}", median(gain)));
}

/// Seconds in which so many processes empty the queue, each by `empty`, which `open` returns when it has opened it.
template <class Open>
double time_of(std::size_t processes, Open open) {
    int ready[2];
    int go[2];
    if (::pipe(ready) != 0 || ::pipe(go) != 0) {
        throw std::runtime_error("no pipe to be had");
    }
    const UniqueFd ends[]{UniqueFd(ready[0]), UniqueFd(ready[1]), UniqueFd(go[0])};
    UniqueFd start(go[1]);
    char byte = 0;
    std::vector<pid_t> pids;
    for (std::size_t i = 0; i < processes; ++i) {
        pids.push_back(spawn([&] {
            start.reset();
            auto empty = open();
            if (::write(ready[1], "r", 1) == 1 && ::read(go[0], &byte, 1) == 0) {
                empty();
                _exit(EXIT_SUCCESS);
            }
        }));
    }
    for (std::size_t i = 0; i < processes; ++i) {
        if (::read(ready[0], &byte, 1) != 1) {
            throw std::runtime_error("a taker did not start");
        }
    }
    const auto begin = Clock::now();
    start.reset();
    for (const pid_t pid : pids) {
        int status = 0;
        if (::waitpid(pid, &status, 0) != pid || status != 0) {
            throw std::runtime_error("a taker failed");
        }
    }
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

void measure_takers(const Setup& setup, const std::filesystem::path& home, const Message& message) {
    const std::size_t messages = setup.quick ? kTaken / kQuickPart : kTaken;
    const auto take = [&] {
        return [way = std::make_shared<Interface>(home, "UNITS")] {
            while (way->take(kUnit) == kUnit) {
            }
        };
    };
    const auto drain = [&] {
        return [store = Store::open(home / "UNITS"), buffer = std::vector<char>(kMaxMessage)]() mutable {
            T_KAVRO_MD descriptor{};
            for (const auto getter = store->drain(kQueue); getter->next(descriptor, buffer, false) >= 0;) {
            }
        };
    };
    const std::vector<std::size_t> numbers{0, 1, 2, 4}; // 0: the exclusive drainer
    std::vector<std::vector<double>> rates(numbers.size());
    for (int round = 0; round < setup.rounds; ++round) {
        progress(fmt::format("takers: round {}", round + 1));
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            const auto fill = [&] {
                const auto store = Store::open(home / "UNITS");
                const std::vector<OutgoingMessage> some(
                    1000, {&message.descriptor, {}, std::span(message.data).last(message.body_size())});
                for (std::size_t put = 0; put < messages; put += some.size()) {
                    store->put(kQueue, some);
                }
            };
            fill();
            const double seconds = numbers[i] == 0 ? time_of(1, drain) : time_of(numbers[i], take);
            rates[i].push_back(static_cast<double>(messages) / seconds);
        }
    }
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        row({numbers[i] == 0 ? "the exclusive drainer" : fmt::format("{} takers, 100 in a unit", numbers[i]),
             fmt::format("{:.0f}", median(rates[i]))});
    }
}

} // namespace

void measure_units(const Setup& setup) {
    const std::filesystem::path home = setup.dir / "units";
    const Message message(kBody);
    std::filesystem::create_directory(home);
    Store::create(home / "UNITS", "UNITS", {});
    Store::open(home / "UNITS")->queue_define(kQueue, "");
    table("Interface for programs, messages of 1024 bytes",
          {"operation", "store's contract, msg/s", "interface, msg/s", "interface / contract", "contract, us CPU",
           "interface, us CPU"});
    measure_interface(setup, Store::open(home / "UNITS"), message);
    table("Processes that take from one queue", {"processes", "msg/s"});
    measure_takers(setup, home, message);
}

} // namespace kvr::bench
