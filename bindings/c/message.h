// SPDX-License-Identifier: MIT
// What kvr_message is.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "kvr.h"
#include "store/descriptor.h"
#include "store/store.h"
#include "store/xmit_header.h"

namespace kvr {

/// Fields of kvr_field that hold bytes or texts.
constexpr std::size_t kByteFields = 9;
/// The widest of them, with a NUL.
using ShownField = std::array<char, 33>;

} // namespace kvr

struct kvr_message {
    T_KAVRO_MD given = kvr::blank_descriptor(); ///< as its user or a get set it
    T_KAVRO_MD shown = given; ///< and as the last put completed it: what it filled the next one fills anew
    std::string content;      ///< as the store has it: behind its transmission header, where it has one
    std::vector<std::string> attachments;
    bool has_header = false;
    kvr::ShownField destination_queue{};
    kvr::ShownField destination_qmgr{};
    std::uint64_t place = 0;
    std::uint32_t given_back = 0;
    bool in_hand = false;
    bool held = false;
    /// Copies with a NUL behind them, made when a field is asked for.
    mutable std::array<kvr::ShownField, kvr::kByteFields> texts{};

    [[nodiscard]] std::size_t header_size() const { return has_header ? kvr::kXmitHeaderSize : 0; }
    /// Finds the header in the content and shows where it leads.
    void read_header() noexcept;
    /// Takes over what was taken, whose memory it gives in exchange.
    void swap_in(kvr::TakenMessage& taken) noexcept;
};
