// SPDX-License-Identifier: MIT
// kvr listen: the receiving end of channels, and, with switches, a peer that misbehaves on purpose.
#include <map>
#include <memory>
#include <tuple>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "held_signals.h"
#include "kavutil/service.h"
#include "receiver/listener_options.h"
#include "session.h"
#include "store/access.h"

namespace kvr {
namespace {

constexpr const char* kTlsGroup = "TLS";
constexpr std::uint64_t kTakeOnce = 262144;        ///< 7 MB of memory
constexpr std::uint64_t kMostTakeOnce = 16U << 20; ///< 430 MB

struct ListenCommand {
    ListenerOptions listener;
    bool discard = false;
    std::uint64_t close_after = 0;
    std::uint64_t reset_after = 0;
    std::uint64_t stall_after = 0;
};

/// Refuses options that would change nothing: whoever gives one counts on it.
void check_tls(const CLI::App& command, const TlsOptions& tls) {
    if (!tls.enabled) {
        for (const CLI::Option* option : command.get_options()) {
            if (option->count() > 0 && (option->get_group() == kTlsGroup || option->check_name("--close-notify"))) {
                throw UsageError(fmt::format("{} without TLS: add --tls, or leave it out", option->get_name()));
            }
        }
        return;
    }
    if (tls.cert.empty()) {
        throw UsageError("TLS needs a certificate: add --cert FILE and --key FILE");
    }
    if (tls.min_version > tls.max_version) {
        throw UsageError(fmt::format("no TLS version is within --tls-min {} and --tls-max {}: lower the first or raise "
                                     "the second",
                                     tls.min_version, tls.max_version));
    }
    const bool asks = tls.client_cert != ClientCert::kNone;
    if (asks && tls.ca.empty()) {
        throw UsageError("checking client certificates needs a CA file: add --ca FILE");
    }
    if (!asks && !tls.ca.empty()) {
        throw UsageError("--ca alone checks nobody: add --client-cert required (or optional), or leave it out");
    }
}

void listen(const GlobalOptions& global, ListenCommand& command) {
    hold_signals({SIGTERM, SIGINT, SIGHUP});
    ListenerOptions& options = command.listener;
    if (command.discard && !options.spool.empty()) {
        throw UsageError("--discard stores no file: leave --spool out");
    }
    if (command.discard && options.take_once > 0) {
        throw UsageError("--discard stores nothing to compare with: leave --take-once out");
    }
    if (!command.discard) {
        options.store = open_store(global);
        require_owner(options.store->dir(), "listen for it");
        if (options.spool.empty()) {
            options.spool = options.store->dir() / "spool";
        }
    }
    options.on_listening = [&options](int port) {
        tell_service_manager(fmt::format("READY=1\nSTATUS=listens on {} port {}, {}", options.address, port,
                                         options.tls.enabled ? "TLS" : "plain")
                                 .c_str());
    };
    if (const int result = run_listener(options); result != 0) {
        throw Error(Errc::kIo, "messages or lines of the journal were lost: the log above says which and why");
    }
}

void add_tls_options(CLI::App& command, TlsOptions& tls) {
    static const std::map<std::string, ClientCert> kClientCerts = {
        {"none", ClientCert::kNone}, {"optional", ClientCert::kOptional}, {"required", ClientCert::kRequired}};
    const std::string group = kTlsGroup;
    command.add_flag("--tls", tls.enabled, "Speak TLS")->group(group);
    command.add_option("--cert", tls.cert, "Certificate with its chain, PEM")->group(group)->type_name("FILE");
    command.add_option("--key", tls.key, "Private key, PEM (default: in the certificate's file)")
        ->group(group)
        ->type_name("FILE");
    command.add_option("--key-pass-file", tls.key_pass_file, "File whose first line is the key's pass phrase")
        ->group(group)
        ->type_name("FILE");
    command.add_option("--ca", tls.ca, "Certificates of those who sign client certificates, PEM; with --client-cert")
        ->group(group)
        ->type_name("FILE");
    command
        .add_option_function<std::string>(
            "--client-cert", [&tls](const std::string& mode) { tls.client_cert = kClientCerts.at(mode); },
            "Ask senders for a certificate [none]")
        ->group(group)
        ->transform(CLI::IsMember({"none", "optional", "required"}, CLI::ignore_case).description(""))
        ->type_name("none|optional|required");
    for (const auto& [name, version, text] : {std::tuple("--tls-min", &tls.min_version, "Lowest version [1.2]"),
                                              std::tuple("--tls-max", &tls.max_version, "Highest version [1.3]")}) {
        command.add_option(name, *version, text)
            ->group(group)
            ->check(CLI::IsMember({"1.2", "1.3"}).description(""))
            ->type_name("1.2|1.3");
    }
    command
        .add_option("--key-log", tls.key_log,
                    "Append the keys of all sessions to this file, for an analyser: who reads it can read the line")
        ->group(group)
        ->type_name("FILE");
    command.add_option("--tls-tickets", tls.tickets, "TLS 1.3 session tickets after the handshake [0]")
        ->group(group)
        ->check(CLI::Range(0, 100))
        ->type_name("N");
    command.add_option("--tls-late-ticket", tls.late_ticket_ms, "One more ticket this long after the handshake")
        ->group(group)
        ->check(CLI::NonNegativeNumber)
        ->type_name("MS");
}

void add_awkward_options(CLI::App& command, ListenCommand& options) {
    AwkwardOptions& awkward = options.listener.awkward;
    const std::string group = "Misbehaving on purpose";
    command.add_option("--close-after", options.close_after, "End the stream (FIN) after so many bytes")
        ->group(group)
        ->type_name("BYTES");
    command.add_option("--reset-after", options.reset_after, "Reset the connection (RST) after so many bytes")
        ->group(group)
        ->type_name("BYTES");
    command.add_option("--stall-after", options.stall_after, "Stop reading after so many bytes")
        ->group(group)
        ->type_name("BYTES");
    command.add_option("--read-rate", awkward.read_rate, "Read so many bytes per second")
        ->group(group)
        ->type_name("BYTES");
    command.add_option("--receive-buffer", awkward.receive_buffer, "Socket receive buffer")
        ->group(group)
        ->check(CLI::NonNegativeNumber)
        ->type_name("BYTES");
    command.add_option("--send", awkward.send, "Send so many bytes to the sender after its bind frame")
        ->group(group)
        ->check(CLI::Range(0, 65536))
        ->type_name("BYTES");
    command.add_flag("--refuse", awkward.refuse, "Accept and close at once")->group(group);
    command.add_flag("--no-handshake", awkward.no_handshake, "Accept and stay silent")->group(group);
    command.add_flag("--close-notify", awkward.close_notify, "With TLS: a closing alert before each end of stream")
        ->group(group);
    command.add_option("--awkward-first", awkward.first, "Misbehave on the first so many connections only [all]")
        ->group(group)
        ->type_name("N");
    command
        .add_option("--awkward-step", awkward.step,
                    "Misbehave on every second connection only, each time so many bytes later")
        ->group(group)
        ->type_name("BYTES");
}

} // namespace

void add_listen_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<ListenCommand>();
    ListenerOptions& listener = options->listener;
    CLI::App* command = app.add_subcommand("listen", "Receive the messages of channels, in the foreground");
    command->add_option("--port", listener.port, "Port; 0: any that is free [5151]")
        ->check(CLI::Range(0, 65535))
        ->type_name("PORT");
    command->add_option("--address,--bind", listener.address, "Numeric address to listen on [0.0.0.0]")
        ->type_name("ADDR");
    command->add_option("--port-file", listener.port_file, "Write the port to this file once connections are accepted")
        ->type_name("FILE");
    command
        ->add_option("--spool", listener.spool,
                     "Folder for received files (default: spool in the queue manager's folder)")
        ->type_name("DIR");
    command
        ->add_option_function<std::string>(
            "--take-once",
            [&listener](const std::string& count) {
                listener.take_once = count.empty() ? kTakeOnce : std::stoul(count);
            },
            "Leave out what came before among the last N messages; 262144 of them where N is not given")
        ->expected(0, 1)
        ->check(CLI::Range(1UL, kMostTakeOnce))
        ->type_name("N");
    command->add_option("--journal", listener.journal, "Append a JSON line per connection, bind, heartbeat and message")
        ->type_name("FILE");
    command
        ->add_option("--max-connections", listener.max_connections,
                     "Further ones take the place of idle ones, or wait [1024]")
        ->check(CLI::Range(1, 100000))
        ->type_name("N");
    command
        ->add_option("--max-per-address", listener.max_per_address,
                     "Beyond so many connections of an address its idle ones make room [256]")
        ->check(CLI::Range(1, 100000))
        ->type_name("N");
    command
        ->add_option("--idle-time", listener.idle_seconds,
                     "Without a message for so long, a connection makes room when others need its place [10]")
        ->check(CLI::Range(0, 86400))
        ->type_name("SECONDS");
    command->add_option("--handshake-time", listener.handshake_seconds, "Limit for a sender to say its name [30]")
        ->check(CLI::Range(1, 86400))
        ->type_name("SECONDS");
    command->add_option("--once", listener.once, "End after so many connections")->type_name("N");
    command->add_flag("--discard", options->discard, "Check and count messages, store nothing; needs no queue manager");
    add_tls_options(*command, listener.tls);
    add_awkward_options(*command, *options);
    set_examples(*command, "  kvr -m WEST listen\n"
                           "  kvr -m WEST listen --port 5152 --spool /data/in --tls --cert west.pem --key west.key \\\n"
                           "      --ca ca.pem --client-cert required\n"
                           "  kvr listen --discard --port 0 --port-file port --close-after 5000 --awkward-first 1\n"
                           "\nMessages go to the queues that they name; a message for a queue that does not exist\n"
                           "goes to the dead-letter queue (DEADQ of the queue manager). Ctrl-C or SIGTERM stops it\n"
                           "after what has been sent is stored; make room first when the store is full: after 5\n"
                           "seconds without room what has been sent is lost, counted, and the status is 1.\n");
    command->callback([options, command, &global] {
        const auto given = [command](const char* name, std::uint64_t value) {
            return command->count(name) > 0 ? std::optional<std::uint64_t>(value) : std::nullopt;
        };
        AwkwardOptions& awkward = options->listener.awkward;
        awkward.close_after = given("--close-after", options->close_after);
        awkward.reset_after = given("--reset-after", options->reset_after);
        awkward.stall_after = given("--stall-after", options->stall_after);
        check_tls(*command, options->listener.tls);
        serve([&] { listen(global, *options); });
    });
}

} // namespace kvr
