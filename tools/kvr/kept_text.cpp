// SPDX-License-Identifier: MIT
#include "kept_text.h"

#include <fmt/format.h>

namespace kvr {

void add_kept(Json& json, const QueueInfo& queue) {
    json["kept"] = queue.kept;
    json["kept_bytes"] = queue.kept_bytes;
    json["suspected"] = queue.suspected;
    json["repeats"] = queue.repeats;
}

std::string kept_remarks(const std::string& channel, const QueueInfo& queue) {
    std::string text;
    if (queue.kept > 0) {
        text = fmt::format("{}: keeps {} that {} sent, {}\n", channel, message_count(queue.kept),
                           queue.kept == 1 ? "was" : "were", human_size(queue.kept_bytes));
    }
    if (queue.suspected > 0) {
        text += fmt::format("{0}: {1} can be gone with the line that broke: 'kvr replay {0} --suspected --dry-run' "
                            "shows them\n",
                            channel, message_count(queue.suspected));
    }
    if (queue.repeats > 0) {
        text += fmt::format("{}: {} {} sent again, before new ones\n", channel, message_count(queue.repeats),
                            queue.repeats == 1 ? "is" : "are");
    }
    return text;
}

} // namespace kvr
