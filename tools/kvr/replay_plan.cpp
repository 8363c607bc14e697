// SPDX-License-Identifier: MIT
#include "replay_plan.h"

#include <deque>

#include <sys/stat.h>

#include "descriptor.h"
#include "kavro_chl.h"
#include "progress.h"
#include "store/xmit_header.h"

namespace kvr {
namespace {

std::string_view body_of(const StoredMessage& message) {
    const std::string_view data(message.data.data(), message.data.size());
    return destination_of(data) ? data.substr(kXmitHeaderSize) : data;
}

std::uint64_t line_bytes(const StoredMessage& message) {
    std::uint64_t bytes = sizeof(T_KAVRO_CHL_HDR) + sizeof(T_KAVRO_CHL_MD) + body_of(message).size();
    if ((message.descriptor.iMsgFlags & KVR_MSGFLAG_ACCESSORIES) != 0) {
        bytes += KVR_CHL_ACC_TRAILER_LEN;
    }
    for (const std::string& path : message.attachments) {
        bytes += sizeof(T_KAVRO_CHL_ACC_HDR) + path.size() - (path.rfind('/') + 1);
    }
    return bytes;
}

class Planner {
  public:
    Planner(const ReplayChoice& choice, std::uint64_t kept) : choice_(choice), progress_(kept) {}

    void take(const StoredMessage& message) {
        progress_.update(++plan_.kept);
        const bool chosen = is_chosen(message);
        if (chosen) {
            add_place(message.sequence);
            add(message);
        }
        goes_on_ = chosen;
    }

    [[nodiscard]] ReplayPlan& plan() { return plan_; }

  private:
    [[nodiscard]] bool is_chosen(const StoredMessage& message) const {
        const KeptFacts facts = message.kept.value_or(KeptFacts{});
        return choice_.last > 0 || (choice_.suspected && facts.suspected) ||
               (choice_.since && facts.used_at >= *choice_.since);
    }

    void add_place(std::uint64_t sequence) {
        if (goes_on_) {
            plan_.places.back().last = sequence;
        } else {
            plan_.places.push_back({sequence, sequence});
        }
    }

    void add(const StoredMessage& message) {
        const KeptFacts facts = message.kept.value_or(KeptFacts{});
        plan_.last = {message.sequence, message_id_text(message.descriptor), facts.used_at};
        if (plan_.messages++ == 0) {
            plan_.first = plan_.last;
        }
        plan_.bytes += line_bytes(message);
        plan_.suspected += facts.suspected ? 1 : 0;
        bool whole = true;
        for (const std::string& path : message.attachments) {
            whole = add_file(path) && whole;
        }
        if (message.descriptor.cMsgStoreType == KVR_STORE_FILE) {
            const std::string_view body = body_of(message);
            whole = add_file(std::string(body.substr(0, body.find('\0')))) && whole;
        }
        plan_.without_files += whole ? 0 : 1;
    }

    /// False where it is gone.
    bool add_file(const std::string& path) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) {
            return false;
        }
        ++plan_.files;
        plan_.file_bytes += static_cast<std::uint64_t>(status.st_size);
        return true;
    }

    const ReplayChoice& choice_;
    Progress progress_;
    ReplayPlan plan_;
    bool goes_on_ = false; ///< the kept message before was chosen
};

/// What the queue's last drainer used in the end is kept once somebody has taken the queue over.
void end_last_group(Store& store, const std::string& queue) {
    try {
        store.drain(queue)->commit();
    } catch (const Error& error) {
        if (error.code() != Errc::kBusy) {
            throw;
        }
    }
}

/// Place of the first of the last `count` kept messages. Adds the number of those before it to `before`.
std::uint64_t place_of_last(Store& store, const std::string& queue, std::uint64_t count, std::uint64_t& before) {
    std::deque<std::uint64_t> places;
    store.browse_kept(queue, 0, [&](const StoredMessage& message) {
        places.push_back(message.sequence);
        if (places.size() > count) {
            places.pop_front();
            ++before;
        }
        return true;
    });
    return places.empty() ? 0 : places.front();
}

} // namespace

ReplayPlan plan_replay(Store& store, const std::string& queue, const ReplayChoice& choice) {
    end_last_group(store, queue);
    Planner planner(choice, store.queue_info(queue).kept);
    std::uint64_t before = 0;
    const std::uint64_t from = choice.last > 0 ? place_of_last(store, queue, choice.last, before) : 0;
    store.browse_kept(queue, from, [&](const StoredMessage& message) {
        if (choice.last > 0 && planner.plan().messages == choice.last) {
            return false; // a channel goes on sending meanwhile
        }
        planner.take(message);
        return true;
    });
    planner.plan().kept += before;
    return std::move(planner.plan());
}

} // namespace kvr
