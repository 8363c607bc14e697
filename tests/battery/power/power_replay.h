// SPDX-License-Identifier: MIT
// The recorded folder at any moment, and as a power cut at that moment may leave it.
//
// What was synced is there. Of what was written since, each sector or page has any of its contents since then; each
// change to a folder that was not synced since happened or did not. An entry counts as synced by a sync of its folder
// alone, not by one of the file, and a file's size as one more thing that a sync makes durable.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "power_record.h"

namespace kvr::test {

class PowerReplay {
  public:
    /// Of the records in this file, made below this folder.
    PowerReplay(const std::filesystem::path& records, std::filesystem::path folder);

    /// Records there are.
    [[nodiscard]] std::size_t size() const { return starts_.size(); }
    /// Goes on until so many records have happened.
    void advance_to(std::size_t count);
    /// What stands in a file now; nothing when it does not exist.
    [[nodiscard]] std::string now(const std::string& name) const;
    /// Makes the folder as a power cut now may leave it, without the entries named here.
    void cut(const std::filesystem::path& into, std::mt19937& random, const std::vector<std::string>& without) const;

  private:
    struct Version {
        std::size_t when;
        std::string bytes;
    };
    struct Node {
        PowerEvent kind;
        std::string synced;
        std::string now;
        std::vector<std::size_t> sizes;                      ///< since the last sync
        std::map<std::size_t, std::vector<Version>> sectors; ///< since the last sync
    };
    struct Change {
        PowerEvent event;
        std::size_t node;
        std::size_t parent;
        std::string path;
        std::string other;
        bool synced;
    };
    using Tree = std::map<std::string, std::size_t>;

    void apply(const PowerRecord& record, const char* rest);
    std::size_t node_of(std::uint64_t inode);
    void write(Node& node, std::size_t offset, std::string_view data, bool synced) const;
    static void resize(Node& node, std::size_t size);
    void sync(std::size_t number);
    static void change(Tree& tree, const Change& change);
    [[nodiscard]] static std::string content_after_cut(const Node& node, std::mt19937& random, double kept,
                                                       std::size_t unit);

    std::string records_;
    std::string folder_;
    std::vector<std::size_t> starts_;
    std::size_t done_ = 0;
    std::map<std::uint64_t, std::size_t> numbers_; ///< the node that an inode is now
    std::vector<Node> nodes_;
    std::vector<Change> changes_;
    Tree tree_;
};

} // namespace kvr::test
