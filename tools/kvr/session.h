// SPDX-License-Identifier: MIT
// From the global options to an open queue manager, and the rules for names.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "store/store.h"

namespace kvr {

struct ChannelStatus;

/// The folder of the queue managers. With `create` it is made (0700) when it is missing, and root
/// becomes its owner.
std::filesystem::path home_folder(const GlobalOptions& global, bool create = false);
/// Names of the queue managers in the home folder, sorted.
std::vector<std::string> qmgr_names(const GlobalOptions& global);
/// The queue manager that is meant: the one named, or the only one there is. Throws UsageError, Error(kNotFound).
std::string chosen_qmgr(const GlobalOptions& global);
/// For a command that names its queue manager itself. Throws UsageError when -m names another one.
void refuse_other_qmgr(const GlobalOptions& global, const std::string& name);
/// The folder of the queue manager that is meant; root becomes its owner (store_owner.h).
std::filesystem::path qmgr_folder(const GlobalOptions& global);
/// Longest wait for another process in the store, of commands that owe an answer soon.
constexpr std::chrono::seconds kStoreTimeout{3};
/// Opens the queue manager that is meant, as its owner.
std::shared_ptr<Store> open_store(const GlobalOptions& global);

/// A worker or a listener that cannot start until somebody has changed something: to start it again changes nothing.
class CannotStart : public ExitError {
  public:
    CannotStart(Errc code, const std::string& text) : ExitError(kExitCannotStart, code, text) {}
};
/// Does the work of a command that a supervisor may start again and again: of its Errors those become CannotStart that
/// do not pass by themselves.
void serve(const std::function<void()>& work);

/// Names are 1 to 32 (channels 63) letters, digits and . _ % -, and begin with neither a dot nor a dash: a queue
/// manager's name is a folder's, and no name may be taken for an option. Throw UsageError.
std::string checked_qmgr_name(const std::string& name);
std::string checked_queue_name(const std::string& name);
/// The name in upper case, as the channel uses it.
std::string checked_channel_name(const std::string& name);
/// A name that another system has chosen: a slash is allowed as well.
std::string checked_remote_name(const std::string& what, const std::string& name);

/// "10", "64K", "20M", "2G" (powers of 1024) as bytes. Throws UsageError that names `what`.
std::uint64_t parse_size(const std::string& what, const std::string& text);

/// Throws a clear Error(kNotFound) when the queue or channel does not exist.
void require_queue(Store& store, const std::string& queue);
void require_channel(Store& store, const std::string& channel);
bool object_exists(Store& store, const std::string& cls, const std::string& name);
/// The first channel that is defined with this transmission queue, or runs on it; empty for none.
std::string channel_that_drains(Store& store, const std::string& queue);
/// Whether a process runs the channel on this transmission queue, whatever the definition says by now.
bool runs_on(Store& store, const std::string& channel, const std::string& queue);
/// Refuses a dead-letter queue that a channel drains: a message that cannot be sent would go round for ever.
[[noreturn]] void refuse_round_trip(const std::string& queue, const std::string& channel);
/// The transmission queue of a channel: that its process drains, else that of its definition.
std::string transmission_queue(const ChannelStatus& status, const Attributes& definition);
/// Nothing where there is no such queue, or cannot be.
std::optional<QueueInfo> queue_if_there(Store& store, const std::string& queue);
/// Name of the dead-letter queue, empty for none.
std::string dead_letter_queue(Store& store);
/// A value of an attribute, empty when unset.
std::string value_of(const Attributes& attributes, const std::string& name);

} // namespace kvr
