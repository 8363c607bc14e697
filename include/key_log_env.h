// SPDX-License-Identifier: MIT
// How a host's process has the TLS client write down the keys of its sessions, for a protocol analyser.
#pragma once

extern "C" {

/// Environment variable: the path of the file. Unset, which is the rule: no key is written anywhere. Set: the keys of
/// each handshake are appended to that file, and whoever reads it can read everything that was sent over those
/// connections. It is made with mode 0600 when it is missing; anything but a regular file of this process's user, with
/// one name and open to nobody else, is left alone, and so is a link. Ignored in a process with raised rights.
constexpr char KVR_KEY_LOG_ENV[] = "KVR_TLS_KEY_LOG";
}
