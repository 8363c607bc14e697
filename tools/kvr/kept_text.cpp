// SPDX-License-Identifier: MIT
#include "kept_text.h"

#include <fmt/format.h>

namespace kvr {

void add_kept(Json& json, const QueueInfo& queue) {
    json["kept"] = queue.kept;
    json["kept_bytes"] = queue.kept_bytes;
    json["suspected"] = queue.suspected.messages;
    json["suspected_bytes"] = queue.suspected.bytes;
    json["suspected_first"] = queue.suspected.first;
    json["suspected_last"] = queue.suspected.last;
    json["repeats"] = queue.repeats;
}

std::string kept_remarks(const std::string& channel, const QueueInfo& queue) {
    std::string text;
    if (queue.kept > 0) {
        text = fmt::format("{}: keeps {} that {} sent, {}\n", channel, message_count(queue.kept),
                           queue.kept == 1 ? "was" : "were", human_size(queue.kept_bytes));
    }
    if (const Loss& loss = queue.suspected; loss.messages > 0) {
        text += fmt::format("{0}: {1} can be gone with the line that broke, {2}, places {3} to {4}; not sent again "
                            "unless by 'kvr replay {0} --suspected'\n",
                            channel, message_count(loss.messages), human_size(loss.bytes), loss.first, loss.last);
    }
    if (queue.repeats > 0) {
        text += fmt::format("{}: {} {} sent again, before new ones\n", channel, message_count(queue.repeats),
                            queue.repeats == 1 ? "is" : "are");
    }
    return text;
}

} // namespace kvr
