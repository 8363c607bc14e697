// SPDX-License-Identifier: MIT
// The one place that every call of the plug-in, the TCP client and the host's utilities passes on its way out of them:
// there one call of a run can fail or meet a signal, and there stands what none of them may ever do.
//
// Calls are counted in the channel process alone, in its main flow and in its handlers, while the window is open.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>

namespace kvr::test {

enum class Action {
    kNone,
    kFail,      ///< no call: it ends with one of its plausible errors, or does half of what it was to do
    kBefore,    ///< a signal, then the call
    kAfter,     ///< the call, then a signal
    kInsteadOf, ///< a signal and no call: it fails with EINTR
};

/// What happens to the n-th call in the window, or to the first one after it that can end so.
struct Attack {
    Action action = Action::kNone;
    int signal = 0;
    int error = 0;             ///< kFail: which of the call's errors, from 0
    int target = 0;            ///< from 1
    bool from_handler = false; ///< the window opens with the next handler of the channel
};

/// What a run tells of its attack, in memory that its processes share.
struct Attacked {
    int calls;         ///< counted
    int fired;         ///< number of the call that was struck; 0: there were fewer
    int error;         ///< errno of a failure; 0: half a call
    char call[32];     ///< its name
    const char* told;  ///< what the log says when it fails for good; null: the failure costs nothing
    char finding[128]; ///< first breach: heap or a close in a handler, a call on a descriptor that is not the channel's
};

/// Before the fork of the channel process.
void plan(const Attack& attack);
const Attacked& attacked();
void open_window();
void close_window();
/// A child of the channel process is no target.
void leave_channel();

/// Stands at the head of each wrapped call and lives as long as it.
class Gate {
  public:
    /// `fd` negative: the call is about none. `scripted`: the case itself says how the call ends.
    explicit Gate(const char* call, int fd = -1, std::optional<int> scripted = {});
    ~Gate();
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    /// True when the call is not to be made; the value is its result, errno is set.
    explicit operator bool() const { return result_.has_value(); }
    long operator*() const { return *result_; }
    int value_or(int otherwise) const { return result_ ? static_cast<int>(*result_) : otherwise; }
    /// The result as the call's own type; `Result{}` stands for null.
    template <typename Result>
    Result as() const {
        if constexpr (std::is_pointer_v<Result>) {
            return nullptr;
        } else {
            return static_cast<Result>(*result_);
        }
    }
    /// Bytes that the call may take or give.
    std::size_t cut(std::size_t size) const { return half_ && size > 1 ? size / 2 : size; }

  private:
    std::optional<long> result_;
    bool half_ = false;
    int after_ = 0;
};

/// While one lives the test itself is at work: no call counts, and it may do what it likes.
class Own {
  public:
    Own();
    ~Own();
    Own(const Own&) = delete;
    Own& operator=(const Own&) = delete;
};

// The channel's descriptors: those that it made and did not give back.
int made(int fd); ///< the same number
void given_back(int fd);

/// Sessions and contexts that were made and not released.
int tls_objects();
void count_tls_object(int more);

/// Runs the channel's handler and watches it; what sigset is to install instead of it.
using Handler = void (*)(int);
Handler watched(int signal, Handler handler);

} // namespace kvr::test
