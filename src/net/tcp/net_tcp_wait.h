// SPDX-License-Identifier: MIT
// Private to the library: waiting on a socket, for as long as its own time-outs allow. All of it may run in a handler.
#pragma once

#include <cstdint>

/// Monotonic; exact to a few milliseconds.
long NowMs();

/// Makes the socket one that does not block. The result is what EndNonBlock takes to put back the mode that it had;
/// that keeps errno.
int BeginNonBlock(int iSocketNo);
void EndNonBlock(int iSocketNo, int iFlags);

/// The waits of one write. Zeroed by the caller before the first.
struct T_SEND_WAIT {
    long lLimitMs;        ///< the socket's send time-out; 0: not looked up yet, negative: none
    long lDeadlineMs;     ///< without progress
    uint64_t ullAccepted; ///< as given to the last wait
    int iUnacked;         ///< bytes that the peer's end had not taken at the last look
};

/// Waits until the socket takes more: 0, or the errno of what ended the wait. The send time-out starts anew with every
/// progress, which is that bytes were accepted since the last wait (`ullAccepted` counts them) or that the peer's end
/// took some; EAGAIN when it runs out.
int WaitToSend(int iSocketNo, uint64_t ullAccepted, T_SEND_WAIT* ptWait);

/// Waits until a byte can be read, or the stream has ended: 0, or errno; EAGAIN when the receive time-out runs out.
/// Takes no notice of the socket's low-water mark.
int WaitToRead(int iSocketNo);
