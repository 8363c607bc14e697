// SPDX-License-Identifier: MIT
// The frames that the sender is expected to build, from the literals of the receiver's tests and from nothing that the
// sender uses.
#pragma once

#include "tools/receiver_stream.h"

namespace kvr::test {

inline std::string frame_header(char type, std::string_view dest, std::string_view msg_type, std::string_view msg_code,
                                std::size_t package) {
    return frame(type, dest, msg_type, msg_code, "").replace(67, 8, digits(package));
}

inline std::string bind_frame() {
    return bind_frame("CH1");
}

/// A descriptor block that carries nothing but a storage type and flags.
inline std::string plain_block(char store_type, int flags = 0) {
    return nuls(64) + store_type + nuls(7) + big_endian(flags) + nuls(196);
}

/// One message without attachments, of type 1 and code 0, for the queue Q1.
inline std::string data_frame(std::string_view body) {
    return frame('0', "Q1", "00000001", "00000000", plain_block('1') + std::string(body));
}

} // namespace kvr::test
