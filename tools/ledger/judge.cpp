// SPDX-License-Identifier: MIT
#include "judge.h"

#include <algorithm>
#include <map>
#include <set>

#include <fmt/format.h>

#include "store.h"

namespace kvr {

namespace {

/// After this many the rest says nothing new.
constexpr std::size_t kMaxFaults = 20;

class Judge {
  public:
    explicit Judge(const Run& run) : run_(run) {
        for (const NumberedMessage& message : run.sent) {
            entries_.emplace(message.number, Entry{message, 0});
        }
        verdict_.sent = run.sent.size();
    }

    Verdict pronounce() {
        for (const Place& place : run_.delivered) {
            last_delivered_ = 0;
            look_at(place, &Judge::see_delivered);
        }
        for (const Place& place : run_.waiting) {
            look_at(place, &Judge::see_waiting);
        }
        for (const Place& place : run_.dead) {
            look_at(place, &Judge::see_dead);
        }
        count_copies_and_losses();
        look_for_strange_files();
        return std::move(verdict_);
    }

  private:
    struct Entry {
        NumberedMessage message;
        std::uint64_t copies;
    };
    using See = void (Judge::*)(const Entry&, const StoredMessage&);

    void fault(const std::string& text) {
        if (verdict_.faults.size() < kMaxFaults) {
            verdict_.faults.push_back(text);
        }
    }

    void look_at(const Place& place, See see) {
        const auto store = Store::open(place.store);
        store->browse(place.queue, 0, [&](const StoredMessage& found) {
            const auto number = number_of(run_.tag, found.descriptor);
            const auto entry = number ? entries_.find(*number) : entries_.end();
            if (entry == entries_.end()) {
                fault(fmt::format("message {} on {} was never put", found.sequence, place.queue));
                return true;
            }
            ++entry->second.copies;
            if (!same_descriptor(found.descriptor, descriptor_of(run_.tag, entry->second.message))) {
                fault(fmt::format("message {} on {}: its descriptor has changed", *number, place.queue));
            }
            (this->*see)(entry->second, found);
            return true;
        });
    }

    void see_delivered(const Entry& entry, const StoredMessage& found) {
        const NumberedMessage& message = entry.message;
        ++verdict_.delivered;
        if (message.kind == MessageKind::kHeaderless) {
            fault(fmt::format("message {} has no destination and was delivered", message.number));
        }
        if (message.number < last_delivered_) {
            fault(fmt::format("message {} was delivered after message {}", message.number, last_delivered_));
        }
        last_delivered_ = message.number;
        std::vector<std::filesystem::path> paths(found.attachments.begin(), found.attachments.end());
        const std::string_view data(found.data.data(), found.data.size());
        if (message.kind == MessageKind::kFile) {
            paths.emplace_back(data.substr(0, data.find('\0')));
        } else if (data != body_of(run_.tag, message)) {
            fault(fmt::format("message {} of {} bytes: {} bytes arrived, or others", message.number, message.size,
                              data.size()));
        } else {
            verdict_.delivered_bytes += data.size();
        }
        see_files(message, paths);
    }

    void see_files(const NumberedMessage& message, const std::vector<std::filesystem::path>& paths) {
        for (const std::filesystem::path& path : paths) {
            std::error_code unknown;
            spooled_.insert(std::filesystem::weakly_canonical(path, unknown));
        }
        const auto files = files_of(run_.tag, message);
        if (files.size() != paths.size()) {
            fault(fmt::format("message {}: {} files instead of {}", message.number, paths.size(), files.size()));
            return;
        }
        for (std::size_t i = 0; i < files.size(); ++i) {
            if (!same_file(paths[i], files[i])) {
                fault(fmt::format("message {}: the file {} is not the one that was sent", message.number,
                                  paths[i].string()));
            } else {
                verdict_.delivered_bytes += files[i].size;
            }
        }
    }

    void see_waiting(const Entry& entry, const StoredMessage& found) {
        ++(found.held ? verdict_.held : verdict_.waiting);
        see_whole(entry, found);
    }

    void see_dead(const Entry& entry, const StoredMessage& found) {
        ++verdict_.dead;
        see_whole(entry, found);
    }

    /// As it was put, its transmission header included.
    void see_whole(const Entry& entry, const StoredMessage& found) {
        const NumberedMessage& message = entry.message;
        std::string_view data(found.data.data(), found.data.size());
        if (message.kind != MessageKind::kHeaderless) {
            data.remove_prefix(std::min(sizeof(T_KAVRO_HDR_XMITQ), data.size()));
        }
        const std::string expected = message.kind == MessageKind::kFile
                                         ? (run_.files / files_of(run_.tag, message).front().name).string()
                                         : body_of(run_.tag, message);
        if (data != expected) {
            fault(fmt::format("message {} has changed on its queue", message.number));
        }
    }

    void count_copies_and_losses() {
        std::uint64_t runs = 0;
        std::uint64_t run_bytes = 0;
        for (const NumberedMessage& message : run_.sent) {
            const std::uint64_t copies = entries_.at(message.number).copies;
            if (copies > 0) {
                verdict_.repeated += copies - 1;
                run_bytes = 0;
                continue;
            }
            ++verdict_.lost;
            runs += run_bytes == 0 ? 1 : 0;
            const std::uint64_t bytes = wire_size(run_.tag, message);
            run_bytes += bytes;
            verdict_.lost_bytes += bytes;
            if (run_bytes > run_.window) {
                fault(fmt::format("message {} is nowhere", message.number));
            }
        }
        if (runs > run_.cuts) {
            fault(fmt::format("messages are missing at {} places, and {} cuts were made", runs, run_.cuts));
        }
        if (verdict_.repeated > run_.repeats) {
            fault(fmt::format("{} second copies, {} allowed", verdict_.repeated, run_.repeats));
        }
    }

    void look_for_strange_files() {
        for (const std::filesystem::path& spool : run_.spools) {
            for (const auto& file : std::filesystem::recursive_directory_iterator(spool)) {
                if (file.is_regular_file() && !spooled_.contains(std::filesystem::weakly_canonical(file.path()))) {
                    fault(fmt::format("the file {} belongs to no message", file.path().string()));
                }
            }
        }
    }

    const Run& run_;
    std::map<std::uint64_t, Entry> entries_;
    std::set<std::filesystem::path> spooled_;
    std::uint64_t last_delivered_ = 0;
    Verdict verdict_;
};

} // namespace

Verdict judge(const Run& run) {
    return Judge(run).pronounce();
}

} // namespace kvr
