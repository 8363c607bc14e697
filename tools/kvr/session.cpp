// SPDX-License-Identifier: MIT
#include "session.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include <fmt/format.h>

#include "core_ctx/channel_status.h"
#include "output.h"
#include "store/home.h"
#include "store/names.h"
#include "store/permissions.h"
#include "store_owner.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

bool good_name(std::string name, std::size_t max_length, bool slash) {
    if (slash) {
        std::replace(name.begin(), name.end(), '/', '_');
    }
    try {
        check_name("object", name, max_length);
        return true;
    } catch (const Error&) {
        return false;
    }
}

std::string checked_name(const char* what, const std::string& name, std::size_t max_length, bool slash) {
    if (name.empty()) {
        throw UsageError(fmt::format("the {} name is empty: give a name of 1 to {} characters", what, max_length));
    }
    if (name.size() > max_length) {
        throw UsageError(fmt::format("the {} name '{}' has {} characters: use at most {}", what, printable(name),
                                     name.size(), max_length));
    }
    if (!good_name(name, max_length, slash)) {
        throw UsageError(fmt::format("'{}' cannot be a {} name: use letters, digits and . _ % -{}, not beginning with "
                                     "a dot or a dash",
                                     printable(name), what, slash ? " /" : ""));
    }
    return name;
}

constexpr NamedBy kNamedBy{"with --home or KVR_HOME", "with -m or KVR_QMGR"};

/// What a look-up in the home folder calls invalid was given on the command line, or missing there.
template <class Work>
auto as_usage(Work work) {
    try {
        return work();
    } catch (const Error& error) {
        if (error.code() != Errc::kInvalid) {
            throw;
        }
        throw UsageError(error.what());
    }
}

void make_home(const fs::path& home) {
    std::error_code unknown;
    if (fs::status(home.parent_path(), unknown).type() == fs::file_type::not_found) {
        throw Error(Errc::kNotFound,
                    fmt::format("{} cannot be made, there is no folder {}: make that one first, or name "
                                "another home folder with --home",
                                home.native(), home.parent_path().native()));
    }
    become_owner_of(home.parent_path());
    make_private_folder(home);
}

} // namespace

std::filesystem::path home_folder(const GlobalOptions& global, bool create) {
    return as_usage([&] {
        if (!create) {
            return find_home(global.home, kNamedBy);
        }
        fs::path home = home_path(global.home, kNamedBy);
        if (is_home(home, kNamedBy)) {
            become_owner_of(home);
        } else {
            make_home(home);
        }
        return home;
    });
}

std::vector<std::string> qmgr_names(const GlobalOptions& global) {
    return qmgr_names(home_folder(global), kNamedBy);
}

std::string chosen_qmgr(const GlobalOptions& global) {
    const std::string named = global.qmgr.empty() ? "" : checked_qmgr_name(global.qmgr);
    return as_usage([&] { return find_qmgr(home_folder(global), named, kNamedBy); });
}

void refuse_other_qmgr(const GlobalOptions& global, const std::string& name) {
    const char* const preset = std::getenv("KVR_QMGR"); // a default, no choice for this command
    if (!global.qmgr.empty() && global.qmgr != name && (preset == nullptr || global.qmgr != preset)) {
        throw UsageError(fmt::format("-m names queue manager '{}' and the command '{}': leave out -m",
                                     printable(global.qmgr), name));
    }
}

std::filesystem::path qmgr_folder(const GlobalOptions& global) {
    fs::path dir = home_folder(global) / chosen_qmgr(global);
    become_owner_of(dir);
    require_qmgr(dir, kNamedBy);
    return dir;
}

std::shared_ptr<Store> open_store(const GlobalOptions& global) {
    return Store::open(qmgr_folder(global));
}

void serve(const std::function<void()>& work) {
    try {
        work();
    } catch (const Error& error) {
        const Errc code = error.code();
        if (code == Errc::kIo || code == Errc::kUnknown || code == Errc::kFull || code == Errc::kInterrupted) {
            throw;
        }
        throw CannotStart(code, error.what());
    }
}

std::string checked_qmgr_name(const std::string& name) {
    return checked_name("queue manager", name, kMaxQueueName, false);
}

std::string checked_queue_name(const std::string& name) {
    return checked_name("queue", name, kMaxQueueName, false);
}

std::string checked_channel_name(const std::string& name) {
    std::string upper = checked_name("channel", name, kMaxChannelName, false);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return upper;
}

std::string checked_remote_name(const std::string& what, const std::string& name) {
    return checked_name(what.c_str(), name, kMaxQueueName, true);
}

std::uint64_t parse_size(const std::string& what, const std::string& text) {
    constexpr unsigned kKilo = 10;
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    unsigned shift = 0;
    bool good = error == std::errc() && rest != text.data();
    if (good && rest != end) {
        constexpr std::string_view kUnits = "KMG";
        const auto unit = kUnits.find(static_cast<char>(*rest & ~0x20));
        good = rest + 1 == end && unit != std::string_view::npos;
        shift = good ? kKilo * static_cast<unsigned>(unit + 1) : 0;
    }
    if (!good || (number << shift) >> shift != number) {
        throw UsageError(fmt::format("{} '{}' is not a size: give bytes, such as 4096, or 64K, 20M, 2G", what, text));
    }
    return number << shift;
}

bool object_exists(Store& store, const std::string& cls, const std::string& name) {
    const std::vector<std::string> names = store.object_names(cls);
    return std::find(names.begin(), names.end(), name) != names.end();
}

void require_queue(Store& store, const std::string& queue) {
    try {
        (void)store.queue_info(queue);
    } catch (const Error& error) {
        if (error.code() != Errc::kNotFound) {
            throw;
        }
        throw Error(Errc::kNotFound,
                    fmt::format("queue '{}' does not exist in {}: make it with 'kvr define queue {}', or see "
                                "'kvr show queue'",
                                queue, store.qmgr(), queue));
    }
}

void require_channel(Store& store, const std::string& channel) {
    if (!object_exists(store, "CHL", channel)) {
        throw Error(Errc::kNotFound,
                    fmt::format("channel '{}' does not exist in {}: make it with 'kvr define channel {}', or see "
                                "'kvr show channel'",
                                channel, store.qmgr(), channel));
    }
}

std::string channel_that_drains(Store& store, const std::string& queue) {
    for (std::string& channel : store.object_names("CHL")) {
        if (value_of(store.object_get("CHL", channel), "XMITQ") == queue || runs_on(store, channel, queue)) {
            return std::move(channel);
        }
    }
    return {};
}

bool runs_on(Store& store, const std::string& channel, const std::string& queue) {
    const ChannelStatus status = channel_status(store, channel);
    return status.is_current() && value_of(status.taken, "XMITQ") == queue;
}

void refuse_round_trip(const std::string& queue, const std::string& channel) {
    throw Error(Errc::kInvalid, fmt::format("queue '{}' cannot be both the dead-letter queue and the transmission "
                                            "queue of channel '{}', messages that fail would go round for ever: name "
                                            "another queue, or make one with 'kvr define queue'",
                                            queue, channel));
}

std::string transmission_queue(const ChannelStatus& status, const Attributes& definition) {
    return value_of(status.is_current() && status.taken.contains("XMITQ") ? status.taken : definition, "XMITQ");
}

std::optional<QueueInfo> queue_if_there(Store& store, const std::string& queue) {
    try {
        return store.queue_info(queue);
    } catch (const Error& error) {
        if (error.code() != Errc::kNotFound && error.code() != Errc::kInvalid) {
            throw;
        }
        return std::nullopt;
    }
}

std::string dead_letter_queue(Store& store) {
    return value_of(store.object_get("QMGR", "QMGR"), "DEADQ");
}

std::string value_of(const Attributes& attributes, const std::string& name) {
    const auto found = attributes.find(name);
    return found == attributes.end() ? std::string() : found->second;
}

} // namespace kvr
