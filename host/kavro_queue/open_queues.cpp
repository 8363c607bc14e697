// SPDX-License-Identifier: MIT
// The queues that the process has open, by handle.
#include "kavro_queue/open_queues.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

#include "kavro_log/log_message.h"
#include "kavro_queue/kavro_queue_host.h"

namespace kvr {

namespace {

struct OpenQueues {
    std::mutex mutex;
    std::uintptr_t last = 0;
    std::map<std::uintptr_t, std::shared_ptr<OpenQueue>> by_handle;
};

/// Never destroyed: a process that ends in the middle of a message must not commit it from a destructor.
OpenQueues& open_queues() {
    static auto* all = new OpenQueues;
    return *all;
}

std::uintptr_t to_number(T_KVR_QUE_OBJ_HANDLE handle) {
    return reinterpret_cast<std::uintptr_t>(handle);
}

template <class Condition>
std::shared_ptr<OpenQueue> find_queue(Condition condition) {
    OpenQueues& all = open_queues();
    const std::scoped_lock guard(all.mutex);
    for (const auto& [handle, queue] : all.by_handle) {
        if (condition(*queue)) {
            return queue;
        }
    }
    return nullptr;
}

[[noreturn]] void not_open() {
    throw Error(Errc::kNotOpen, "the handle is of no open queue: open the queue first");
}

} // namespace

T_KVR_QUE_OBJ_HANDLE add_open_queue(std::shared_ptr<OpenQueue> queue) {
    OpenQueues& all = open_queues();
    const std::scoped_lock guard(all.mutex);
    all.by_handle.emplace(++all.last, std::move(queue));
    // The border has a pointer for a handle. What it holds is the number, which nobody follows as an address.
    return reinterpret_cast<T_KVR_QUE_OBJ_HANDLE>(all.last); // NOLINT
}

std::shared_ptr<OpenQueue> find_open_queue(T_KVR_QUE_OBJ_HANDLE handle) {
    OpenQueues& all = open_queues();
    const std::scoped_lock guard(all.mutex);
    const auto found = all.by_handle.find(to_number(handle));
    if (found == all.by_handle.end()) {
        not_open();
    }
    return found->second;
}

std::shared_ptr<OpenQueue> remove_open_queue(T_KVR_QUE_OBJ_HANDLE handle) {
    OpenQueues& all = open_queues();
    const std::scoped_lock guard(all.mutex);
    const auto node = all.by_handle.extract(to_number(handle));
    if (node.empty()) {
        not_open();
    }
    return node.mapped();
}

std::shared_ptr<OpenQueue> drained_queue() {
    return find_queue([](const OpenQueue& queue) { return queue.getter != nullptr; });
}

std::shared_ptr<OpenQueue> queue_in_hand() {
    return find_queue([](const OpenQueue& queue) { return queue.getter && queue.getter->in_hand(); });
}

void queue_give_back() {
    while (const std::shared_ptr<OpenQueue> queue = queue_in_hand()) {
        queue->getter->rollback();
    }
    log_set_message(nullptr);
}

} // namespace kvr
