// SPDX-License-Identifier: MIT
#include "core_ctx/worker.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <strings.h>
#include <system_error>

#include <unistd.h>

#include "core_ctx/channel_status.h"
#include "core_ctx/context.h"
#include "core_ctx/process_setup.h"
#include "core_ctx/run_lock.h"
#include "core_ctx/stop_signal.h"
#include "kavro_ac/kavro_ac_host.h"
#include "kavro_log.h"
#include "kavro_log/log.h"
#include "kavro_object/kavro_object_host.h"
#include "kavro_queue/kavro_queue_host.h"
#include "kavutil.h"
#include "kavutil/service.h"
#include "kavutil/stop_point.h"
#include "plug_mgr/plugin.h"
#include "store/schema.h"
#include "store/store.h"

extern "C" void __gcov_dump() __attribute__((weak)); // NOLINT(bugprone-reserved-identifier)

namespace kvr {
namespace {

constexpr int kLevelFailure = 1;
constexpr int kLevelEvent = 3;

/// What the process runs; lives until _exit.
struct Worker {
    std::string channel;
    std::filesystem::path log_file;
    std::shared_ptr<Store> store;
    std::optional<RunLock> lock;
    std::optional<Context> context;
    std::optional<Plugin> plugin;
    bool tls = false;
};

Worker& worker() {
    static Worker& the_worker = *new Worker; // never destroyed: exit handlers use it
    return the_worker;
}

void log_line(int level, const std::string& text, int line = __builtin_LINE()) {
    // The log takes pointers to char and writes through none of them.
    KVR_LogPrint(nullptr, level, const_cast<char*>("$core_ctx"), const_cast<char*>("worker"), line, "run_worker",
                 const_cast<char*>("%s"), text.c_str());
}

/// For what an operator at the terminal must see too, wherever the log goes. The log's line comes second: it passes on
/// what was diverted from standard error.
void warn(const std::string& text) {
    if (!worker().log_file.empty()) {
        std::fprintf(stderr, "%skvr: %s\n", journal_mark(STDERR_FILENO, "<3>"), text.c_str());
    }
    log_line(kLevelFailure, text);
}

std::string upper_case(std::string text) {
    strToUpper(text.data());
    return text;
}

/// The channel's name becomes part of a file's name.
std::string checked_channel(const std::string& name) {
    if (name.empty() || name.size() > kMaxChannelName || name.find('/') != std::string::npos) {
        throw Error(Errc::kInvalid, "'" + name + "' is no channel name: 1 to " + std::to_string(kMaxChannelName) +
                                        " characters without a slash");
    }
    return upper_case(name);
}

std::optional<Attributes> find_object(Store& store, const std::string& cls, const std::string& name) {
    try {
        return store.object_get(cls, name);
    } catch (const Error& error) {
        if (error.code() != Errc::kNotFound) {
            throw;
        }
        return std::nullopt;
    }
}

bool queue_exists(Store& store, const std::string& name) {
    try {
        static_cast<void>(store.queue_info(name));
        return true;
    } catch (const Error& error) {
        if (error.code() != Errc::kNotFound) {
            throw;
        }
        return false;
    }
}

/// What the host itself goes by of the definition. Throws for what could not work.
void take_line_settings(const std::string& channel, const Attributes& definition) {
    constexpr std::uint64_t kMebibyte = 1U << 20U;
    const auto seconds = [&](const char* attr) { return std::chrono::seconds(channel_number(definition, attr)); };
    const auto bytes = [&](const char* attr) {
        return static_cast<std::uint64_t>(channel_number(definition, attr)) * kMebibyte;
    };
    check_channel(definition);
    line_settings({channel,
                   {KeepLimits{seconds("KEEPINT"), bytes("KEEPMAX")},
                    {seconds("LOSSINT"), bytes("LOSSMAX")},
                    channel_repeats(definition)},
                   seconds("TRIALTMR")});
}

/// Returns whether the channel uses TLS.
bool check_definition(Store& store, const std::string& channel) {
    std::optional<Attributes> definition = find_object(store, "CHL", channel);
    if (!definition) {
        throw Error(Errc::kNotFound, "channel '" + channel + "' is not defined in queue manager '" + store.qmgr() +
                                         "': define it with 'kvr define channel " + channel + " ...'");
    }
    const std::string type = (*definition)["CHLTYPE"];
    if (strcasecmp(type.c_str(), "SNDR") != 0) {
        throw Error(Errc::kInvalid, "channel '" + channel + "' has type '" + type +
                                        "': only sender channels (CHLTYPE SNDR) can be run");
    }
    const std::string queue = (*definition)["XMITQ"];
    if (queue.empty()) {
        throw Error(Errc::kInvalid, "channel '" + channel + "' has no transmission queue: set its XMITQ");
    }
    if (!queue_exists(store, queue)) {
        throw Error(Errc::kNotFound, "transmission queue '" + queue + "' of channel '" + channel +
                                         "' does not exist: define it with 'kvr define queue " + queue + "'");
    }
    take_line_settings(channel, *definition);
    return strcasecmp((*definition)["SSLCAUTH"].c_str(), "ENABLE") == 0;
}

void check_dead_letter_queue(Store& store) {
    constexpr char kRemedy[] = "; set DEADQ of the queue manager to a queue that exists";
    Attributes qmgr = find_object(store, "QMGR", "QMGR").value_or(Attributes{});
    const std::string queue = qmgr["DEADQ"];
    if (queue.empty()) {
        // The channel then makes no call by which the host could tell a failed message from a sent one.
        warn(std::string("no dead-letter queue is set: messages that cannot be sent have no home and are LOST") +
             kRemedy);
    } else if (!queue_exists(store, queue)) {
        warn("dead-letter queue '" + queue +
             "' does not exist: messages that cannot be sent will be held on the transmission queue" + kRemedy);
    }
    kvr_log_add_secret(qmgr["KEYPASS"].c_str());
}

/// A status that names a running state blocks the start when the process id that it recorded is in use again, by
/// whatever process, this one included. Under the run lock it is known to be stale.
void repair_status(Store& store, const std::string& channel) {
    const ChannelStatus status = recorded_status(store, channel);
    if (!status.is_stale()) {
        return;
    }
    if (procIsExist(status.recorded_pid) > 0) {
        (void)mark_stopped(store, channel, "");
    }
    log_line(kLevelEvent, "channel[" + channel + "] stat[" + status.state + "] pid[" +
                              std::to_string(status.recorded_pid) +
                              "] is stale: that process does not run it; taken over");
}

std::string utc_now() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    char text[sizeof "2000-01-01 00:00:00 UTC"] = "";
    std::strftime(text, sizeof text, "%F %T UTC", gmtime_r(&now, &parts));
    return text;
}

/// Operators cannot tell a failed channel from a stopped one by its state. Where even this cannot be written, the log
/// has it.
void record_failure(const std::string& text) {
    constexpr std::chrono::seconds kLongest{2};
    limit_waits(kLongest);
    try {
        const Attributes failure{{"FAILURE", utc_now() + ", " + text}, {"LOG", worker().log_file.native()}};
        worker().store->object_set("CHS", worker().channel, failure);
    } catch (const std::exception& error) {
        log_line(kLevelFailure, std::string("the failure is not shown by 'kvr status': ") + error.what());
    }
}

/// Raises the exit event and ends the process. Reached from the main flow only, once.
[[noreturn]] void end_process(int status, const std::string& failure = {}) {
    stop_set_hook(nullptr);
    ignore_stop_signals();
    // The plug-in's handlers must not run under its shutdown, which still is its main flow: ignored, not held.
    alarm(0);
    std::signal(SIGALRM, SIG_IGN);
    std::signal(SIGUSR2, SIG_IGN);
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGHUP); // as during the run
    sigprocmask(SIG_SETMASK, &held, nullptr);
    if (worker().plugin) {
        worker().plugin->raise(PluginEvent::kExit);
    }
    if (!failure.empty()) {
        record_failure(failure);
    }
    log_restore_stderr();
    log_line(kLevelEvent, "channel[" + worker().channel + "] ended, status[" + std::to_string(status) + "]");
    if (__gcov_dump != nullptr) {
        __gcov_dump();
    }
    _exit(status);
}

[[noreturn]] void end_stopped() {
    log_line(kLevelEvent, "channel[" + worker().channel + "] stop requested");
    end_process(EXIT_SUCCESS);
}

void on_stop(StopPlace place) {
    if (place == StopPlace::kMidMessage) {
        queue_give_back();
    }
    end_stopped();
}

/// The run event ends the process itself when it cannot go on. Where a stop made it fail (an interrupted connection
/// without retries left), this is the stop.
void on_exit_in_run() {
    if (!worker().plugin) {
        return;
    }
    if (stop_pending()) {
        queue_give_back();
        end_stopped();
    }
    record_failure("the channel could not go on");
}

/// Ends after an event that failed: as stopped when a stop made it fail.
[[noreturn]] void end_failed(const WorkerOptions& options, const char* what, int result) {
    if (stop_pending()) {
        end_stopped();
    }
    log_restore_stderr();
    const std::string where =
        options.log_file.empty() ? "the lines above" : "the lines before this one in " + options.log_file.string();
    const char* const tls_hint = "; with TLS, check CAFILE, CERTFILE, KEYFILE ('kvr show qmgr') and the key's pass "
                                 "phrase ('kvr set qmgr --keypass-file FILE')";
    warn("channel '" + worker().channel + "' " + what + " (result " + std::to_string(result) + "): " + where +
         " say why" + (worker().tls ? tls_hint : ""));
    end_process(EXIT_FAILURE, std::string(what) + " (result " + std::to_string(result) + ")");
}

void prepare(const WorkerOptions& options, int argc, char** argv) {
    Worker& self = worker();
    self.channel = checked_channel(options.channel);
    self.log_file = options.log_file;
    log_set_level(options.log_level);
    if (journal_reads(STDERR_FILENO)) {
        log_mark_priorities();
    }
    if (log_open(options.log_file.c_str()) != 0) {
        throw Error(Errc::kIo, "log file '" + options.log_file.string() + "' cannot be opened (" +
                                   std::error_code(errno, std::generic_category()).message() +
                                   "): check its folder, or leave the log on standard error; a link is not followed");
    }
    if (log_rotate_on(SIGHUP) != 0) {
        throw Error(Errc::kIo, std::string("no descriptor to watch for SIGHUP: ") + std::strerror(errno));
    }
    set_idle_look(log_look);
    set_notice([](const std::string& line) { warn(line); });
    self.store = Store::open(options.home / options.qmgr);
    std::string qmgr = self.store->qmgr();
    KVR_LogSetQMName(qmgr.data());
    self.tls = check_definition(*self.store, self.channel);
    self.lock.emplace(self.store->dir(), self.channel);
    if (options.on_claimed) {
        options.on_claimed();
    }
    check_dead_letter_queue(*self.store);
    repair_status(*self.store, self.channel);
    ac_set_qmgr(options.home, options.qmgr);
    self.context.emplace(options, self.channel, argc, argv);
    self.plugin.emplace(options.plugin, self.context->record());
}

} // namespace

void run_worker(const WorkerOptions& options, int argc, char** argv) {
    watch_stop_signals(); // before the signals are let through
    set_up_process();
    try {
        prepare(options, argc, argv);
    } catch (const Error&) {
        if (!stop_pending()) {
            throw;
        }
        end_stopped(); // it ended a wait
    }
    Plugin& plugin = *worker().plugin;
    log_line(kLevelEvent, "channel[" + worker().channel + "] starting, plug-in[" + options.plugin.string() + "]");
    if (log_divert_stderr() != 0) {
        log_line(kLevelFailure, "lines of others on standard error keep going there as they are: no pipe for them");
    }
    const int started = plugin.raise(PluginEvent::kInit);
    if (started < 0) {
        end_failed(options, "could not start", started);
    }
    tell_service_manager("READY=1"); // it is the channel's by now; whether the listener is there is its own affair
    std::atexit(on_exit_in_run);
    object_set_status_hook(line_status);
    stop_set_hook(on_stop);
    stop_point(StopPlace::kBetweenMessages);
    const int result = plugin.raise(PluginEvent::kRun);
    end_failed(options, "could not reach its receiver", result);
}

} // namespace kvr
