// SPDX-License-Identifier: MIT
// Where exceptions end: what a function of kvr.h does becomes its result, and the text of a failure the thread's.
#pragma once

#include <new>

#include "kavutil/error.h"
#include "kvr.h"

namespace kvr {

/// Keeps the text for kvr_error, cut where it is very long, and returns the result.
int tell_result(int result, const char* text) noexcept;

/// Runs the work, which returns the function's result or nothing, for KVR_OK.
template <class Work>
int at_border(Work work) noexcept {
    try {
        if constexpr (requires { int{work()}; }) {
            return work();
        } else {
            work();
            return KVR_OK;
        }
    } catch (const Error& error) {
        return tell_result(error.result(), error.what());
    } catch (const std::bad_alloc&) {
        return tell_result(KVR_E_MEMORY, "there is no memory: free some, or take less at once");
    } catch (const std::exception& error) {
        return tell_result(KVR_E_IO, error.what());
    }
}

[[noreturn]] inline void refuse(Errc code, const std::string& text) {
    throw Error(code, text);
}

/// The text, which must not be null. `what` says in the error whose it is.
inline const char* text_given(const char* text, const char* what) {
    return text != nullptr ? text : throw Error(Errc::kInvalid, std::string(what) + " is null: give one");
}

} // namespace kvr
