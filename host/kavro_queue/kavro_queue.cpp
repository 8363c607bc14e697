// SPDX-License-Identifier: MIT
// The queue operations of the host over the store. No exception leaves: each becomes its negative number, and its text
// a line of the log.
//
// A process that holds a message in hand puts one message only: that message, on the dead-letter queue. So a put then
// takes the message in hand off its queue in the same transaction, and where that fails, or where no dead-letter queue
// could be opened, the message is held: the next get must not use it up.
#include "kavro_queue.h"

#include <chrono>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "kavro_log/log_message.h"
#include "kavro_queue/line_watch.h"
#include "kavro_queue/message_files.h"
#include "kavro_queue/open_queues.h"
#include "kavutil/export.h"
#include "kavutil/stop_point.h"
#include "store/c_border.h"
#include "store/db_handle.h"

namespace kvr {

namespace {

constexpr BorderModule kSelf{"$kavro_queue", "kavro_queue"};

/// What the dead-letter queue could not take stays on its own queue.
void hold_message_in_hand(const char* what, const std::exception& why) {
    try {
        if (const std::shared_ptr<OpenQueue> queue = queue_in_hand()) {
            queue->getter->hold(what, why.what());
        }
    } catch (const std::exception& error) {
        static_cast<void>(
            fail_at_border(kSelf, error, BorderPlace::here())); // the next get tries again before anything else
    }
}

/// Options that have no meaning yet must not get one behind their caller's back.
void refuse_unless_zero(const std::string& operation, std::initializer_list<std::pair<const char*, KVRINT>> options) {
    for (const auto& [name, value] : options) {
        if (value != 0) {
            throw Error(Errc::kInvalid,
                        "a " + operation + " has no option " + name + " " + std::to_string(value) + ": set it to 0");
        }
    }
}

/// Nothing: without end.
LineWatch::Longest longest_wait(const T_KAVRO_GMO* options) {
    if (options == nullptr) {
        return std::nullopt;
    }
    refuse_unless_zero(
        "get", {{"iOptions", options->iOptions}, {"iSignal1", options->iSignal1}, {"iSignal2", options->iSignal2}});
    if (options->iWaitInterval < 0) {
        throw Error(Errc::kInvalid, "a get cannot wait for " + std::to_string(options->iWaitInterval) +
                                        " milliseconds: give iWaitInterval as 1 or more, or 0 for a wait without end");
    }
    return options->iWaitInterval == 0 ? LineWatch::Longest() : std::chrono::milliseconds(options->iWaitInterval);
}

void put_message(T_KVR_QUE_OBJ_HANDLE handle, const T_KAVRO_MD* descriptor, const char* data, int length) {
    const std::shared_ptr<OpenQueue> target = find_open_queue(handle);
    if (descriptor == nullptr || length < 0 || (data == nullptr && length > 0)) {
        throw Error(Errc::kInvalid, "a put needs a descriptor and its data");
    }
    const std::span<const char> bytes(data, static_cast<std::size_t>(length));
    if (line_watch().spares(*descriptor, bytes)) {
        return;
    }
    const std::vector<std::string> attachments = attachments_of(*descriptor);
    const OutgoingMessage message{descriptor, attachments, bytes};
    if (const std::shared_ptr<OpenQueue> source = queue_in_hand()) {
        source->getter->put_instead(target->name, message);
    } else {
        target->store->put(target->name, message);
    }
}

} // namespace

} // namespace kvr

using kvr::Errc;
using kvr::Error;

extern "C" KVR_EXPORT int KVR_QueOpen(T_KVR_QUE_DB_HANDLE hQueDB, char* psName, T_KVR_QUE_OBJ_HANDLE* phObj,
                                      int /*iOpt*/) {
    try {
        kvr::stop_point(kvr::StopPlace::kMidMessage);
        if (psName == nullptr || phObj == nullptr) {
            throw Error(Errc::kInvalid, "an open needs a queue name and a place for the handle");
        }
        auto queue = std::make_shared<kvr::OpenQueue>();
        queue->store = kvr::store_of(hQueDB);
        queue->name = psName;
        static_cast<void>(queue->store->queue_info(queue->name)); // throws when there is no such queue
        *phObj = kvr::add_open_queue(std::move(queue));
        return 0;
    } catch (const std::exception& error) {
        const int result = kvr::fail_at_border(kvr::kSelf, error, kvr::BorderPlace::here());
        if (kvr::line_watch().spares_without_files()) {
            return result;
        }
        kvr::hold_message_in_hand("no dead-letter queue: ", error);
        return result;
    }
}

extern "C" KVR_EXPORT int KVR_QueClose(T_KVR_QUE_DB_HANDLE /*hQueDB*/, char* /*psName*/, T_KVR_QUE_OBJ_HANDLE hObj,
                                       int /*iOpt*/) {
    try {
        const std::shared_ptr<kvr::OpenQueue> queue = kvr::remove_open_queue(hObj);
        if (queue->getter) {
            kvr::log_set_message(nullptr);
            const std::unique_ptr<kvr::Getter> getter = std::move(queue->getter);
            kvr::line_watch().close(*getter);
        }
        return 0;
    } catch (const std::exception& error) {
        return kvr::fail_at_border(kvr::kSelf, error, kvr::BorderPlace::here());
    }
}

extern "C" KVR_EXPORT int KVR_QueMsgGet(T_KVR_QUE_DB_HANDLE /*hQueDB*/, T_KVR_QUE_OBJ_HANDLE hObj, T_KAVRO_QUE_MD* ptMD,
                                        T_KAVRO_QUE_GMO* ptGMO, char* psBuf, int* piLen) {
    try {
        const std::shared_ptr<kvr::OpenQueue> queue = kvr::find_open_queue(hObj);
        if (ptMD == nullptr || psBuf == nullptr || piLen == nullptr || *piLen < 0) {
            throw Error(Errc::kInvalid, "a get needs a descriptor, a buffer and its length");
        }
        const kvr::LineWatch::Longest longest = kvr::longest_wait(ptGMO);
        if (!queue->getter) {
            kvr::stop_point(kvr::StopPlace::kBetweenMessages);
            queue->getter = kvr::line_watch().drain(*queue->store, queue->name);
        }
        kvr::log_set_message(nullptr);
        const auto until =
            longest ? std::chrono::steady_clock::now() + *longest : std::chrono::steady_clock::time_point::max();
        const std::int64_t length =
            kvr::line_watch().next(*queue->getter, *ptMD, {psBuf, static_cast<std::size_t>(*piLen)}, longest);
        if (length < 0) { // no fault: nothing for the log
            return static_cast<int>(longest && std::chrono::steady_clock::now() >= until ? Errc::kNone
                                                                                         : Errc::kInterrupted);
        }
        *piLen = static_cast<int>(length);
        return 0;
    } catch (const std::exception& error) {
        return kvr::fail_at_border(kvr::kSelf, error, kvr::BorderPlace::here());
    }
}

extern "C" KVR_EXPORT int KVR_QueMsgPut(T_KVR_QUE_DB_HANDLE /*hQueDB*/, T_KVR_QUE_OBJ_HANDLE hObj, T_KAVRO_QUE_MD* ptMD,
                                        T_KAVRO_QUE_PMO* ptPMO, char* psBuf, int iLen) {
    try {
        kvr::stop_point(kvr::StopPlace::kMidMessage);
        if (ptPMO != nullptr) {
            kvr::refuse_unless_zero("put", {{"iOptions", ptPMO->iOptions}, {"iTimeOut", ptPMO->iTimeOut}});
        }
        kvr::put_message(hObj, ptMD, psBuf, iLen);
        return 0;
    } catch (const std::exception& error) {
        const int result = kvr::fail_at_border(kvr::kSelf, error, kvr::BorderPlace::here());
        kvr::hold_message_in_hand("not dead-lettered: ", error);
        return result;
    }
}
