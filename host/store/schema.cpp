// SPDX-License-Identifier: MIT
// Object classes with their attributes. A length is the reader's buffer less its NUL: readers are told no sizes.
#include "store/schema.h"

#include <algorithm>
#include <array>
#include <charconv>

#include <arpa/inet.h>
#include <strings.h>

namespace kvr {

namespace {

constexpr std::size_t kShort = 63;      ///< readers' buffers of 64 bytes
constexpr std::size_t kLong = 255;      ///< readers' buffers of 256 bytes
constexpr std::size_t kPathRoom = 4095; ///< for what no reader copies
constexpr long kMaxSeconds = 86400;     ///< a day: longer pauses look like a dead channel
constexpr long kMaxRetries = 999999999;
constexpr long kMaxPort = 65535;
constexpr long kMaxKeptSeconds = 31536000; ///< a year
constexpr long kMaxMebibytes = 1048576;
constexpr long kMaxTrial = 3600;
/// Queue names fit 32 bytes wherever they travel, although the readers' buffers hold 63.
constexpr std::size_t kQueueNameRoom = 32;

constexpr std::array<AttrSpec, 17> kChannel{{
    {"DESCR", kLong, AttrKind::kText, 0, 0, "", "", "free text for operators"},
    {"CHLTYPE", kLong, AttrKind::kChoice, 0, 0, "SNDR", "SNDR", "type of the channel; SNDR sends"},
    {"XMITQ", kQueueNameRoom, AttrKind::kQueue, 0, 0, "", "", "transmission queue that the channel drains"},
    {"CONNAME", kLong, AttrKind::kAddress, 0, 0, "", "",
     "listener's address, IPv4: host or host(port); port 5151 if none"},
    {"HBINT", kLong, AttrKind::kNumber, 0, kMaxSeconds, "", "30",
     "seconds without a message between heartbeats; 0: none"},
    {"DISCINT", kShort, AttrKind::kNumber, 0, kMaxSeconds, "", "0",
     "disconnect interval in seconds; read, not acted on"},
    {"SSLCAUTH", kLong, AttrKind::kChoice, 0, 0, "ENABLE|DISABLE", "DISABLE", "ENABLE: the connection uses TLS"},
    {"SHORTRTY", kShort, AttrKind::kNumber, 0, kMaxRetries, "", "10",
     "connection attempts repeated at the short pause"},
    {"SHORTTMR", kShort, AttrKind::kNumber, 0, kMaxSeconds, "", "5",
     "seconds before each short retry; also the send time-out, 0: none"},
    {"LONGRTY", kLong, AttrKind::kNumber, 0, kMaxRetries, "", "1000000",
     "attempts at the long pause after the short ones"},
    {"LONGTMR", kShort, AttrKind::kNumber, 0, kMaxSeconds, "", "60", "seconds before each long retry"},
    // The host's own.
    {"KEEPINT", kShort, AttrKind::kNumber, 0, kMaxKeptSeconds, "", "0",
     "seconds that sent messages are kept on their queue; 0: not at all"},
    {"KEEPMAX", kShort, AttrKind::kNumber, 1, kMaxMebibytes, "", "64", "MiB of sent messages that are kept at most"},
    {"REPEAT", kShort, AttrKind::kChoice, 0, 0, "NEVER|LOSS", "NEVER",
     "LOSS: what can be gone with a line that was lost is sent again"},
    {"LOSSINT", kShort, AttrKind::kNumber, 0, kMaxSeconds, "", "1200",
     "seconds before a loss from which messages can be gone; 0: no limit"},
    {"LOSSMAX", kShort, AttrKind::kNumber, 1, kMaxMebibytes, "", "48", "MiB that can be gone at most with a line"},
    {"TRIALTMR", kShort, AttrKind::kNumber, 0, kMaxTrial, "", "8",
     "seconds at most that a line lasts before it is fed after losses; 0: none"},
}};

constexpr std::array<AttrSpec, 6> kQmgr{{
    {"DESCR", kLong, AttrKind::kText, 0, 0, "", "", "free text for operators"},
    {"DEADQ", kQueueNameRoom, AttrKind::kQueue, 0, 0, "", "", "dead-letter queue for messages that cannot be sent"},
    {"CAFILE", kLong, AttrKind::kPath, 0, 0, "", "", "trusted CA certificates, PEM"},
    {"CERTFILE", kLong, AttrKind::kPath, 0, 0, "", "", "own certificate, PEM"},
    {"KEYFILE", kLong, AttrKind::kPath, 0, 0, "", "", "private key of the certificate, PEM"},
    {"KEYPASS", kShort, AttrKind::kSecret, 0, 0, "", "", "pass phrase of the private key"},
}};

constexpr std::array<AttrSpec, 16> kStatus{{
    {"PID", kLong, AttrKind::kText, 0, 0, "", "", "process that runs the channel; -1 after a stop"},
    {"STATUS", kLong, AttrKind::kText, 0, 0, "", "", "BINDING, RETRYING, RUNING or STOPED"},
    {"LOCALIP", kShort, AttrKind::kText, 0, 0, "", "", "own address of the connection"},
    {"LOCALPORT", kShort, AttrKind::kText, 0, 0, "", "", "own port of the connection"},
    {"REMOTEIP", kLong, AttrKind::kText, 0, 0, "", "", "listener's address"},
    {"REMOTEPORT", kShort, AttrKind::kText, 0, 0, "", "", "listener's port"},
    // The host's own: what the channel read of its definition when it started,
    {"XMITQ", kQueueNameRoom, AttrKind::kText, 0, 0, "", "", "transmission queue that it drains"},
    {"HBINT", kLong, AttrKind::kText, 0, 0, "", "", "heartbeat interval that it keeps"},
    {"SSLCAUTH", kLong, AttrKind::kText, 0, 0, "", "", "whether it uses TLS"},
    // and when it began to connect;
    {"CONNAME", kLong, AttrKind::kText, 0, 0, "", "", "address that it connects to"},
    {"SHORTRTY", kShort, AttrKind::kText, 0, 0, "", "", "short retries that it makes"},
    {"SHORTTMR", kShort, AttrKind::kText, 0, 0, "", "", "seconds before each of them"},
    {"LONGRTY", kLong, AttrKind::kText, 0, 0, "", "", "long retries that it makes"},
    {"LONGTMR", kShort, AttrKind::kText, 0, 0, "", "", "seconds before each of them"},
    // and how its process ended.
    {"FAILURE", kLong, AttrKind::kText, 0, 0, "", "", "when and why it failed; empty: it did not"},
    {"LOG", kPathRoom, AttrKind::kPath, 0, 0, "", "", "log of the process that failed; empty: standard error"},
}};

/// Whether what these attributes may hold fits the channel's buffers of that size, with its NUL.
template <std::size_t N>
constexpr bool fit(const std::array<AttrSpec, N>& attrs, std::size_t buffer,
                   std::initializer_list<std::string_view> names) {
    for (const std::string_view name : names) {
        const auto* const spec =
            std::find_if(attrs.begin(), attrs.end(), [&](const auto& a) { return a.name == name; });
        if (spec == attrs.end() || spec->max_length + 1 > buffer) {
            return false;
        }
    }
    return true;
}
static_assert(fit(kChannel, 256, {"CHLTYPE", "HBINT", "SSLCAUTH", "LONGRTY", "CONNAME"}));
static_assert(fit(kChannel, 64, {"DISCINT", "LONGTMR", "SHORTRTY", "SHORTTMR"}) && fit(kChannel, 33, {"XMITQ"}));
static_assert(fit(kQmgr, 256, {"CAFILE", "CERTFILE", "KEYFILE"}) && fit(kQmgr, 64, {"KEYPASS"}));
static_assert(fit(kQmgr, 33, {"DEADQ"}) && fit(kStatus, 256, {"PID", "STATUS"}));

constexpr std::array<ClassSpec, 3> kClasses{{{"CHL", kChannel}, {"QMGR", kQmgr}, {"CHS", kStatus}}};

const AttrSpec& require_attr(std::string_view cls, std::string_view attr) {
    const ClassSpec* spec = find_class(cls);
    if (spec == nullptr) {
        throw Error(Errc::kInvalid, "there is no object class '" + std::string(cls) + "'; use CHL, QMGR or CHS");
    }
    const AttrSpec* found = find_attr(*spec, attr);
    if (found == nullptr) {
        std::string known;
        for (const AttrSpec& each : spec->attrs) {
            known += (known.empty() ? "" : ", ") + std::string(each.name);
        }
        throw Error(Errc::kUnknownAttr,
                    "class " + std::string(cls) + " has no attribute '" + std::string(attr) + "'; it has " + known);
    }
    return *found;
}

bool parse_number(std::string_view text, long& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && error == std::errc{} && end == text.data() + text.size();
}

bool is_choice(std::string_view choices, std::string_view value) {
    for (std::size_t at = 0; at <= choices.size();) {
        const std::size_t end = std::min(choices.find('|', at), choices.size());
        const std::string_view choice = choices.substr(at, end - at);
        if (choice.size() == value.size() && strncasecmp(choice.data(), value.data(), value.size()) == 0) {
            return true;
        }
        at = end + 1;
    }
    return false;
}

bool is_port(std::string_view text) {
    long port = 0;
    return parse_number(text, port) && port >= 1 && port <= kMaxPort;
}

bool is_label(std::string_view label) {
    constexpr std::size_t kMaxLabel = 63;
    return !label.empty() && label.size() <= kMaxLabel && label.front() != '-' && label.back() != '-' &&
           std::all_of(label.begin(), label.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
                      c == '_';
           });
}

bool is_host_name(std::string_view host) {
    host.remove_suffix(host.ends_with('.') ? 1 : 0);
    for (std::size_t dot = host.find('.'); dot != std::string_view::npos; dot = host.find('.')) {
        if (!is_label(host.substr(0, dot))) {
            return false;
        }
        host.remove_prefix(dot + 1);
    }
    return is_label(host);
}

/// No name ends in a number: what does is meant as an address.
bool ends_in_number(std::string_view host) {
    const std::string_view last = host.substr(host.rfind('.') + 1);
    return !last.empty() && last.find_first_not_of("0123456789") == std::string_view::npos;
}

/// What is wrong with an address, empty for nothing. A reader of connection names takes the host up to the first "(",
/// the port up to the next ")", and nothing but IPv4.
std::string address_fault(std::string_view value) {
    const std::size_t open = value.find('(');
    const std::string_view host = value.substr(0, open);
    const std::size_t colon = host.find(':');
    if (host.find_first_of("[]") != std::string_view::npos || colon != host.rfind(':')) {
        return "is an IPv6 address and the channel speaks IPv4, write an IPv4 address or a host's name, such as "
               "10.0.0.2(5151)";
    }
    const std::size_t mark = host.find_first_of(":,");
    if (mark != std::string_view::npos && mark > 0 && is_port(value.substr(mark + 1))) {
        return std::string("has its port after a ") + (value[mark] == ':' ? "colon" : "comma") + ", write " +
               std::string(host.substr(0, mark)) + "(" + std::string(value.substr(mark + 1)) + ")";
    }
    in_addr address{};
    if (ends_in_number(host) && inet_pton(AF_INET, std::string(host).c_str(), &address) != 1) {
        return "is no IPv4 address, write four numbers from 0 to 255 or a host's name, such as 10.0.0.2(5151)";
    }
    if (!is_host_name(host) || (open != std::string_view::npos &&
                                (value.back() != ')' || !is_port(value.substr(open + 1, value.size() - open - 2))))) {
        return "is not host or host(port) with a port from 1 to 65535, write it such as 10.0.0.2(5151)";
    }
    return {};
}

/// As the definition says, or as it says when it does not.
std::string_view channel_text(const Attributes& channel, const std::string& attr) {
    const auto given = channel.find(attr);
    return given != channel.end() ? std::string_view(given->second) : require_attr("CHL", attr).default_text;
}

} // namespace

std::span<const ClassSpec> schema() {
    return kClasses;
}

const ClassSpec* find_class(std::string_view name) {
    const auto* found =
        std::find_if(kClasses.begin(), kClasses.end(), [&](const ClassSpec& cls) { return cls.name == name; });
    return found == kClasses.end() ? nullptr : found;
}

const AttrSpec* find_attr(const ClassSpec& cls, std::string_view name) {
    const auto found =
        std::find_if(cls.attrs.begin(), cls.attrs.end(), [&](const AttrSpec& attr) { return attr.name == name; });
    return found == cls.attrs.end() ? nullptr : &*found;
}

void check_attr(std::string_view cls, std::string_view attr, std::string_view value) {
    const AttrSpec& spec = require_attr(cls, attr);
    if (value.size() > spec.max_length) {
        throw Error(Errc::kTooLong, std::string(attr) + " takes at most " + std::to_string(spec.max_length) +
                                        " bytes, not " + std::to_string(value.size()));
    }
    if (std::any_of(value.begin(), value.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; })) {
        throw Error(Errc::kInvalid, std::string(attr) + " must not hold control characters");
    }
}

void check_definition(std::string_view cls, std::string_view attr, std::string_view value) {
    check_attr(cls, attr, value);
    const AttrSpec& spec = require_attr(cls, attr);
    const std::string quoted = std::string(attr) + " '" + std::string(value) + "'";
    switch (spec.kind) {
    case AttrKind::kNumber: {
        long number = 0;
        if (!parse_number(value, number) || number < spec.min || number > spec.max) {
            throw Error(Errc::kInvalid, quoted + " is not a whole number from " + std::to_string(spec.min) + " to " +
                                            std::to_string(spec.max));
        }
        break;
    }
    case AttrKind::kChoice:
        if (!is_choice(spec.choices, value)) {
            throw Error(Errc::kInvalid, quoted + " is not one of " + std::string(spec.choices));
        }
        break;
    case AttrKind::kAddress:
        if (const std::string fault = address_fault(value); !fault.empty()) {
            throw Error(Errc::kInvalid, quoted + " " + fault);
        }
        break;
    case AttrKind::kText:
    case AttrKind::kQueue:
    case AttrKind::kSecret:
    case AttrKind::kPath:
        break;
    }
}

long channel_number(const Attributes& channel, const std::string& attr) {
    long number = 0;
    check_definition("CHL", attr, channel_text(channel, attr));
    (void)parse_number(channel_text(channel, attr), number);
    return number;
}

bool channel_repeats(const Attributes& channel) {
    check_definition("CHL", "REPEAT", channel_text(channel, "REPEAT"));
    return is_choice("LOSS", channel_text(channel, "REPEAT"));
}

void check_channel(const Attributes& channel) {
    if (!channel_repeats(channel)) {
        return;
    }
    const long keep = channel_number(channel, "KEEPINT");
    if (keep == 0) {
        throw Error(Errc::kInvalid, "REPEAT LOSS repeats what is kept, and KEEPINT 0 keeps nothing: set KEEPINT to the "
                                    "seconds for which sent messages are to be kept");
    }
    if (const long window = channel_number(channel, "LOSSINT"); keep < window) {
        throw Error(Errc::kInvalid, "KEEPINT " + std::to_string(keep) + " is less than LOSSINT " +
                                        std::to_string(window) +
                                        ": what is to be repeated must be kept for as long, set KEEPINT to " +
                                        std::to_string(window) + " or more");
    }
    if (const long most = channel_number(channel, "LOSSMAX"); channel_number(channel, "KEEPMAX") < most) {
        throw Error(Errc::kInvalid, "KEEPMAX " + std::to_string(channel_number(channel, "KEEPMAX")) +
                                        " is less than LOSSMAX " + std::to_string(most) +
                                        ": what is to be repeated must be kept, set KEEPMAX to " +
                                        std::to_string(most) + " or more");
    }
}

} // namespace kvr
