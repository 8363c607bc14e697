// SPDX-License-Identifier: MIT
// The queues that the process has open, by handle. A handle is a number that is never given twice: one that is closed,
// null or of another kind is found out and does no harm.
#pragma once

#include <memory>
#include <string>

#include "kavro_queue.h"
#include "store/store.h"

namespace kvr {

/// One open queue. It drains its queue from its first get on.
struct OpenQueue {
    std::shared_ptr<Store> store;
    std::string name;
    std::unique_ptr<Getter> getter;
};

T_KVR_QUE_OBJ_HANDLE add_open_queue(std::shared_ptr<OpenQueue> queue);
/// Throws kNotOpen.
std::shared_ptr<OpenQueue> find_open_queue(T_KVR_QUE_OBJ_HANDLE handle);
/// Takes the queue out of the table. Throws kNotOpen.
std::shared_ptr<OpenQueue> remove_open_queue(T_KVR_QUE_OBJ_HANDLE handle);
/// The queue that the process drains, null for none.
std::shared_ptr<OpenQueue> drained_queue();
/// The queue whose message the process holds in hand, null for none.
std::shared_ptr<OpenQueue> queue_in_hand();

} // namespace kvr
