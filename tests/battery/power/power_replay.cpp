// SPDX-License-Identifier: MIT
#include "power_replay.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string_view>

#include <sys/stat.h>

#include "support/folder.h"

namespace kvr::test {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kSector = 512;
constexpr std::size_t kPage = 4096;

std::string parent_of(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

void overlay(std::string& content, std::size_t at, const std::string& bytes) {
    if (at < content.size()) {
        bytes.copy(content.data() + at, content.size() - at);
    }
}

} // namespace

PowerReplay::PowerReplay(const fs::path& records, fs::path folder)
    : records_(contents(records)), folder_(std::move(folder)) {
    for (std::size_t at = 0; at < records_.size();) {
        PowerRecord record{};
        std::memcpy(&record, records_.data() + at, sizeof record);
        starts_.push_back(at);
        at += sizeof record + record.path_size + record.other_size + record.data_size;
    }
}

void PowerReplay::advance_to(std::size_t count) {
    for (; done_ < count; ++done_) {
        PowerRecord record{};
        std::memcpy(&record, records_.data() + starts_[done_], sizeof record);
        apply(record, records_.data() + starts_[done_] + sizeof record);
    }
}

std::size_t PowerReplay::node_of(std::uint64_t inode) {
    const auto [found, is_new] = numbers_.try_emplace(inode, nodes_.size());
    if (is_new) {
        nodes_.push_back({});
    }
    return found->second;
}

void PowerReplay::apply(const PowerRecord& record, const char* rest) {
    const std::string path(rest, record.path_size);
    const std::string other(rest + record.path_size, record.other_size);
    const std::string_view data(rest + record.path_size + record.other_size, record.data_size);
    switch (record.event) {
    case PowerEvent::kWrite:
    case PowerEvent::kSyncedWrite:
        write(nodes_[node_of(record.inode)], record.offset, data, record.event == PowerEvent::kSyncedWrite);
        return;
    case PowerEvent::kResize:
        resize(nodes_[node_of(record.inode)], record.offset);
        return;
    case PowerEvent::kSync:
        sync(node_of(record.inode));
        return;
    case PowerEvent::kFile:
    case PowerEvent::kFolder:
    case PowerEvent::kFifo:
        numbers_.erase(record.inode);
        nodes_[node_of(record.inode)].kind = record.event;
        break;
    default:
        break;
    }
    changes_.push_back({record.event, node_of(record.inode), node_of(record.parent), path, other, false});
    change(tree_, changes_.back());
}

void PowerReplay::write(Node& node, std::size_t offset, std::string_view data, bool synced) const {
    const std::size_t end = offset + data.size();
    if (node.now.size() < end) {
        node.now.resize(end);
        node.sizes.push_back(end);
    }
    data.copy(node.now.data() + offset, data.size());
    if (synced) { // the sectors that it wrote to, and nothing else
        node.synced.resize(std::max(node.synced.size(), end));
    }
    for (std::size_t sector = offset / kSector; sector * kSector < end; ++sector) {
        if (synced) {
            overlay(node.synced, sector * kSector, node.now.substr(sector * kSector, kSector));
            node.sectors.erase(sector);
        } else {
            node.sectors[sector].push_back({done_, node.now.substr(sector * kSector, kSector)});
        }
    }
}

void PowerReplay::resize(Node& node, std::size_t size) {
    node.now.resize(size);
    node.sizes.push_back(size);
}

void PowerReplay::sync(std::size_t number) {
    Node& node = nodes_[number];
    node.synced.resize(node.now.size());
    for (const auto& [sector, versions] : node.sectors) {
        overlay(node.synced, sector * kSector, versions.back().bytes);
    }
    node.sectors.clear();
    node.sizes.clear();
    for (Change& change : changes_) {
        change.synced = change.synced || change.parent == number;
    }
}

void PowerReplay::change(Tree& tree, const Change& change) {
    if (change.event == PowerEvent::kUnlink) {
        tree.erase(change.path);
        return;
    }
    const std::string& made = change.other.empty() ? change.path : change.other;
    if (change.event == PowerEvent::kRename) {
        Tree moved; // with what is in it
        for (auto at = tree.lower_bound(change.path); at != tree.end() && at->first.starts_with(change.path);) {
            const std::string rest = at->first.substr(change.path.size());
            if (rest.empty() || rest.front() == '/') {
                moved[made + rest] = at->second;
                at = tree.erase(at);
            } else {
                ++at;
            }
        }
        moved.merge(tree);
        tree.swap(moved);
    }
    tree[made] = change.node;
}

std::string PowerReplay::now(const std::string& name) const {
    const auto found = tree_.find(folder_ + "/" + name);
    return found == tree_.end() ? std::string() : nodes_[found->second].now;
}

std::string PowerReplay::content_after_cut(const Node& node, std::mt19937& random, double kept, std::size_t unit) {
    const auto happens = [&] { return std::bernoulli_distribution(kept)(random); };
    const auto any_of = [&](std::size_t count) { return std::uniform_int_distribution<std::size_t>(0, count)(random); };
    std::string content = node.synced;
    if (!node.sizes.empty()) {
        const std::size_t which = any_of(node.sizes.size());
        content.resize(happens() ? node.now.size() : which == 0 ? node.synced.size() : node.sizes[which - 1]);
    }
    std::size_t last_unit = SIZE_MAX;
    std::size_t until = 0; // a page is written as it was at one moment
    for (const auto& [sector, versions] : node.sectors) {
        if (sector * kSector / unit != last_unit) {
            last_unit = sector * kSector / unit;
            const std::size_t which = any_of(versions.size());
            until = happens() ? SIZE_MAX : which == 0 ? 0 : versions[which - 1].when;
        }
        for (const Version& version : versions) {
            if (version.when <= until && until > 0) {
                overlay(content, sector * kSector, version.bytes);
            }
        }
    }
    return content;
}

void PowerReplay::cut(const fs::path& into, std::mt19937& random, const std::vector<std::string>& without) const {
    constexpr double kShares[] = {0, 0.1, 0.5, 0.9, 1};
    const double kept = kShares[std::uniform_int_distribution(0, 4)(random)];
    const std::size_t unit = std::bernoulli_distribution(0.5)(random) ? kSector : kPage;
    Tree tree;
    for (const Change& made : changes_) {
        if (made.synced || std::bernoulli_distribution(kept)(random)) {
            change(tree, made);
        }
    }
    fs::create_directories(into);
    for (const auto& entry : tree) { // a folder comes before what is in it
        const std::string& path = entry.first;
        const fs::path name = into / fs::path(path).lexically_relative(folder_);
        const bool left_out = std::any_of(without.begin(), without.end(), [&](const std::string& prefix) {
            return path.starts_with(folder_ + "/" + prefix);
        });
        if (left_out || !fs::exists(parent_of(name))) {
            continue;
        }
        const Node& node = nodes_[entry.second];
        if (node.kind == PowerEvent::kFolder) {
            ::mkdir(name.c_str(), 0700);
        } else if (node.kind == PowerEvent::kFifo) {
            ::mkfifo(name.c_str(), 0600);
        } else {
            std::ofstream(name, std::ios::binary) << content_after_cut(node, random, kept, unit);
            ::chmod(name.c_str(), 0600);
        }
    }
}

} // namespace kvr::test
