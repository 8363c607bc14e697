// SPDX-License-Identifier: MIT
// kvr_ledger: puts numbered messages and judges later where each of them is. A tool of the demonstration and the
// tests, not of operators. Places are written QMGR/QUEUE.
#include <chrono>
#include <cstdio>
#include <exception>
#include <map>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "judge.h"
#include "ledger_file.h"
#include "numbered_put.h"
#include "store.h"

namespace kvr {

namespace {

constexpr std::size_t kMaxSize = kMaxMessage - sizeof(T_KAVRO_HDR_XMITQ);
constexpr auto kLookAgain = std::chrono::milliseconds(2);

enum ExitCode : int { kExitGood = 0, kExitFailed = 1, kExitUsage = 2 };

struct Options {
    std::filesystem::path home;
    std::filesystem::path ledger;
    std::filesystem::path files;
    std::string tag = "RUN";
    // put
    std::string target;
    std::string destination;
    MessageKind kind = MessageKind::kData;
    std::uint64_t first = 1;
    std::uint64_t count = 1;
    std::size_t least = 0;
    std::size_t greatest = kMaxSize;
    // judge
    std::vector<std::string> delivered;
    std::vector<std::string> waiting;
    std::vector<std::string> dead;
    std::vector<std::filesystem::path> spools;
    std::uint64_t cuts = 0;
    std::uint64_t window = 0;
    std::uint64_t repeats = 0;
    // wait
    std::uint64_t depth = 0;
    std::uint64_t arrived = 0;
    bool empty = false;
    double timeout = 60;
};

Place place_of(const Options& options, const std::string& text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string::npos) {
        throw Error(Errc::kInvalid, fmt::format("'{}' is no place: write QMGR/QUEUE", text));
    }
    return {options.home / text.substr(0, slash), text.substr(slash + 1)};
}

int run_put(const Options& options) {
    const Place place = place_of(options, options.target);
    const std::shared_ptr<Store> store = Store::open(place.store);
    std::vector<NumberedMessage> messages;
    for (std::uint64_t i = 0; i < options.count; ++i) {
        messages.push_back({options.first + i, options.kind, varied_size(i + 1, options.least, options.greatest)});
    }
    const std::string header = options.kind == MessageKind::kHeaderless ? "" : xmit_header_for(options.destination);
    put_numbered({*store, place.queue, options.tag, header, options.files}, messages,
                 [&](std::span<const NumberedMessage> put) { append_to_ledger(options.ledger, put); });
    return kExitGood;
}

int run_judge(const Options& options) {
    Run run;
    run.tag = options.tag;
    run.sent = read_ledger(options.ledger);
    run.files = options.files;
    run.spools = options.spools;
    run.cuts = options.cuts;
    run.window = options.window;
    run.repeats = options.repeats;
    for (const auto& [texts, places] :
         {std::pair(&options.delivered, &run.delivered), std::pair(&options.waiting, &run.waiting),
          std::pair(&options.dead, &run.dead)}) {
        for (const std::string& text : *texts) {
            places->push_back(place_of(options, text));
        }
    }
    const Verdict verdict = judge(run);
    fmt::print("sent={} delivered={} waiting={} held={} dead={} lost={} repeated={} bytes={} lost_bytes={}\n",
               verdict.sent, verdict.delivered, verdict.waiting, verdict.held, verdict.dead, verdict.lost,
               verdict.repeated, verdict.delivered_bytes, verdict.lost_bytes);
    for (const std::string& fault : verdict.faults) {
        fmt::print(stderr, "kvr_ledger: {}\n", fault);
    }
    return verdict.faults.empty() ? kExitGood : kExitFailed;
}

/// Looks for a message by its number, each time from where it stopped looking.
class Search {
  public:
    Search(const Options& options, Store& store, std::string queue)
        : options_(options), store_(store), queue_(std::move(queue)) {}

    bool found() {
        store_.browse(queue_, from_, [this](const StoredMessage& message) {
            from_ = message.sequence + 1;
            found_ = found_ || number_of(options_.tag, message.descriptor) == options_.arrived;
            return !found_;
        });
        return found_;
    }

  private:
    const Options& options_;
    Store& store_;
    std::string queue_;
    std::uint64_t from_ = 0;
    bool found_ = false;
};

int run_wait(const Options& options) {
    using Clock = std::chrono::steady_clock;
    const Place place = place_of(options, options.target);
    const auto store = Store::open(place.store);
    Search search(options, *store, place.queue);
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.timeout));
    for (;;) {
        const std::uint64_t depth = store->queue_info(place.queue).depth;
        if (options.arrived != 0 ? search.found() : options.empty ? depth == 0 : depth >= options.depth) {
            fmt::print("{}\n", depth);
            return kExitGood;
        }
        if (Clock::now() > deadline) {
            fmt::print(stderr, "kvr_ledger: {} messages on {} after {} s\n", depth, options.target, options.timeout);
            return kExitFailed;
        }
        std::this_thread::sleep_for(kLookAgain);
    }
}

int run(int argc, char** argv) {
    CLI::App app("Puts numbered messages, and judges where each of them is. Places are written QMGR/QUEUE.");
    Options options;
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--home", options.home, "Folder of the queue managers")->envname("KVR_HOME")->required();
    app.add_option("--tag", options.tag, "Tag of the run, at most 16 letters and digits")
        ->check([](const std::string& tag) { return tag.size() <= kMaxTag ? "" : "longer than 16 characters"; });
    app.add_option("--ledger", options.ledger, "File of what was put");
    app.add_option("--files", options.files, "Folder of the files that travel");

    CLI::App& put = *app.add_subcommand("put", "Put numbered messages and write them down");
    const std::map<std::string, MessageKind> kinds{{"data", MessageKind::kData},
                                                   {"attached", MessageKind::kAttached},
                                                   {"file", MessageKind::kFile},
                                                   {"headerless", MessageKind::kHeaderless}};
    put.add_option("place", options.target, "Transmission queue")->required();
    put.add_option("--dest", options.destination, "QUEUE@QMGR that the messages are for");
    put.add_option("--kind", options.kind, "data, attached, file, headerless")
        ->transform(CLI::CheckedTransformer(kinds));
    put.add_option("--first", options.first, "Number of the first message");
    put.add_option("--count", options.count, "How many");
    put.add_option("--min", options.least, "Least size");
    put.add_option("--max", options.greatest, "Greatest size")->check(CLI::Range(std::size_t{0}, kMaxSize));

    CLI::App& judged = *app.add_subcommand("judge", "Say where each message is; exit code 1 when one is wrong");
    judged.add_option("--delivered", options.delivered, "Destination queues");
    judged.add_option("--waiting", options.waiting, "Transmission queues");
    judged.add_option("--dead", options.dead, "Dead-letter queues");
    judged.add_option("--spool", options.spools, "Folders of received files");
    judged.add_option("--cuts", options.cuts, "Broken connections that may have cost messages");
    judged.add_option("--window", options.window, "Bytes that one of them may have cost");
    judged.add_option("--repeats", options.repeats, "Second copies that are allowed");

    CLI::App& wait = *app.add_subcommand("wait", "Wait until a queue is as wanted; prints its depth");
    wait.add_option("place", options.target, "Queue")->required();
    wait.add_option("--depth", options.depth, "Least depth");
    wait.add_flag("--empty", options.empty, "Wait for an empty queue instead");
    wait.add_option("--arrived", options.arrived, "Wait for the message of this number instead");
    wait.add_option("--timeout", options.timeout, "Seconds");

    try {
        app.parse(argc, argv);
        return put.parsed() ? run_put(options) : judged.parsed() ? run_judge(options) : run_wait(options);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitGood : kExitUsage;
    }
}

} // namespace
} // namespace kvr

int main(int argc, char** argv) {
    try {
        return kvr::run(argc, argv);
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "kvr_ledger: %s\n", error.what());
        return kvr::kExitFailed;
    }
}
