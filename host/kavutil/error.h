// SPDX-License-Identifier: MIT
// Results of the embedded host's operations and the exception that carries them inside the host and the tools.
#pragma once

#include <stdexcept>
#include <string>

#include "kavutil/export.h"

namespace kvr {

/// Negative results of the KVR_ operations. Each names one cause; callers of the C operations see the number in their
/// own log line, and the host writes the text beside it.
enum class Errc : int {
    kNotFound = -101,    ///< no such object, queue or queue manager
    kExists = -102,      ///< it exists already
    kInvalid = -103,     ///< a bad argument: null pointer, unknown class, bad name, bad number
    kUnknownAttr = -104, ///< the class has no such attribute
    kTooLong = -105,     ///< a value longer than the schema allows
    kTooLarge = -106,    ///< a message or attachment beyond the limits, or larger than the caller's buffer
    kBusy = -107,        ///< another process drains the queue or runs the channel
    kInterrupted = -108, ///< a signal ended the wait
    kFull = -109,        ///< the store's quota is used up, or the disk is full
    kIo = -110,          ///< the operating system reported an error
    kVersion = -111,     ///< the store was written by another version
    kPermission = -112,  ///< not readable, or writable by others
    kDamaged = -113,     ///< a record does not decode
    kNotOpen = -114,     ///< a handle that is closed or of another kind
    kHeld = -115,        ///< a message in hand could be neither committed nor held; the queue is left as it is
    kUnknown = -116,     ///< a write failed in the middle: it is not known whether it happened
    // -117 and -118 are of the library for programs alone.
    kNone = -119, ///< a get whose time was over before a message came
};

/// An error with a text that says what is wrong and what to do about it.
class KVR_EXPORT Error : public std::runtime_error {
  public:
    Error(Errc code, const std::string& text) : std::runtime_error(text), code_(code) {}
    [[nodiscard]] Errc code() const { return code_; }
    [[nodiscard]] int result() const { return static_cast<int>(code_); }

  private:
    Errc code_;
};

} // namespace kvr
