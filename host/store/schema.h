// SPDX-License-Identifier: MIT
// Object classes with their attributes, and the greatest lengths that readers have room for.
#pragma once

#include <map>
#include <span>
#include <string>
#include <string_view>

#include "kavutil/error.h"
#include "kavutil/export.h"

namespace kvr {

using Attributes = std::map<std::string, std::string>;

enum class AttrKind {
    kText,
    kQueue,   ///< name of a queue
    kNumber,  ///< decimal integer within min..max
    kChoice,  ///< one of `choices`, case aside
    kAddress, ///< connection name: host, or host(port) with a port of 1 to 65535
    kSecret,  ///< text that is never shown
    kPath,
};

struct AttrSpec {
    std::string_view name;
    std::size_t max_length; ///< bytes without NUL
    AttrKind kind;
    long min;
    long max;
    std::string_view choices;      ///< separated by '|'
    std::string_view default_text; ///< what a definition starts with; empty: unset
    std::string_view help;         ///< one line for operators
};

struct ClassSpec {
    std::string_view name; ///< "CHL", "QMGR", "CHS"
    std::span<const AttrSpec> attrs;
};

/// All classes. The lengths are those of the buffers into which the channel reads (docs/operations.md).
KVR_EXPORT std::span<const ClassSpec> schema();
/// Null when there is none.
KVR_EXPORT const ClassSpec* find_class(std::string_view name);
KVR_EXPORT const AttrSpec* find_attr(const ClassSpec& cls, std::string_view name);
/// What the store refuses whoever writes: unknown class or attribute, too long. Throws kvr::Error.
KVR_EXPORT void check_attr(std::string_view cls, std::string_view attr, std::string_view value);
/// What a definition by an operator refuses on top of that: values that could not work. Throws kvr::Error.
KVR_EXPORT void check_definition(std::string_view cls, std::string_view attr, std::string_view value);

/// Of a channel's definition, of which attributes can be missing: they have their defaults then. Throws kvr::Error for
/// a value that could not work.
KVR_EXPORT long channel_number(const Attributes& channel, const std::string& attr);
/// Whether what can be gone with a line is to be sent again.
KVR_EXPORT bool channel_repeats(const Attributes& channel);
/// What a whole definition refuses: attributes that contradict each other. Throws kvr::Error.
KVR_EXPORT void check_channel(const Attributes& channel);

} // namespace kvr
