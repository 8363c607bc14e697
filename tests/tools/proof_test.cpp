// SPDX-License-Identifier: MIT
// Everything is judged by these proofs, so each kind of damage has to be seen: each case does one to a good run.
#include <gmock/gmock.h>

#include "proof/proof.h"
#include "proof/xmit_header.h"
#include "support/folder.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using Messages = std::vector<ProofMessage>;
using Ranges = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

struct Found {
    std::uint64_t taken;
    std::uint64_t altered = 0;
    std::uint64_t repeated = 0;
    std::uint64_t disordered = 0;
    std::uint64_t foreign = 0;
    Ranges missing = {};
};

void append(const std::string& file, char byte) {
    std::ofstream(file, std::ios::app) << byte;
}

TEST(Proof, FindsEveryDamageAndNoOther) {
    const struct {
        const char* name;
        std::function<void(Messages&)> damage;
        Found found;
    } cases[] = {
        {"nothing", [](Messages&) {}, {6}},
        {"headers",
         [](Messages& all) {
             for (auto& one : all)
                 one.data.insert(0, xmit_header({"Q", "M"}));
         },
         {6}},
        {"a padded path", [](Messages& all) { all[3].data += std::string(9, '\0'); }, {6}},
        {"a byte", [](Messages& all) { all[1].data.back() ^= 1; }, {5, 1}},
        {"a byte less", [](Messages& all) { all[1].data.pop_back(); }, {5, 1}},
        {"a byte more", [](Messages& all) { all[0].data += 'x'; }, {5, 1}},
        {"first field", [](Messages& all) { all[0].descriptor.sStrucId[0] = 'X'; }, {5, 1}},
        {"last field", [](Messages& all) { all[0].descriptor.sPutTime[6] = '9'; }, {5, 1}},
        {"between", [](Messages& all) { all[0].descriptor.iPriority ^= 1; }, {5, 1}},
        {"bytes of a file", [](Messages& all) { std::ofstream(all[2].attachments[1]) << "other bytes"; }, {5, 1}},
        {"a longer file", [](Messages& all) { append(all[2].attachments[0], 'x'); }, {5, 1}},
        {"a file less", [](Messages& all) { all[2].attachments.pop_back(); }, {5, 1}},
        {"a file twice", [](Messages& all) { all[2].attachments.push_back(all[2].attachments[0]); }, {5, 1}},
        {"files swapped", [](Messages& all) { std::swap(all[2].attachments[0], all[2].attachments[1]); }, {5, 1}},
        {"file message's file", [](Messages& all) { append(all[3].data, 'x'); }, {5, 1}},
        {"no file", [](Messages& all) { fs::remove(all[3].data); }, {5, 1}},
        {"twice", [](Messages& all) { all.push_back(all[4]); }, {7, 0, 1}},
        {"disordered", [](Messages& all) { std::swap(all[0], all[1]); }, {6, 0, 0, 1}},
        {"lost", [](Messages& all) { all.erase(all.begin() + 1, all.begin() + 3); }, {4, 0, 0, 0, 0, {{2, 3}}}},
        {"both ends", [](Messages& all) { all.erase(all.begin()), all.pop_back(); }, {4, 0, 0, 0, 0, {{1, 1}, {6, 6}}}},
        {"no proof", [](Messages& all) { all[5].descriptor.sFmtName[0] = 'X'; }, {5, 0, 0, 0, 1, {{6, 6}}}},
        {"no such number", [](Messages& all) { all[5].descriptor.iMsgSeqNo = 7; }, {5, 0, 0, 0, 1, {{6, 6}}}},
    };
    for (const auto& [name, damage, found] : cases) {
        SCOPED_TRACE(name);
        const TemporaryFolder folder;
        ProofPlan plan{7, 6, ProofKind::kData, {90, 2000}, {500, 100000}};
        Messages messages;
        for (std::uint32_t number = 1; number <= plan.count; ++number) {
            plan.kind = number == 3 ? ProofKind::kAttached : number == 4 ? ProofKind::kFile : ProofKind::kData;
            messages.push_back(make_proof(plan, number, {}, folder.path()));
        }
        damage(messages);
        ProofCheck check;
        for (const ProofMessage& message : messages) {
            check.take(message.descriptor, message.data, message.attachments);
        }
        const ProofRun run = check.run(plan.seed);
        EXPECT_EQ(run.taken, found.taken);
        EXPECT_EQ(run.altered, found.altered);
        EXPECT_EQ(run.repeated, found.repeated);
        EXPECT_EQ(run.disordered, found.disordered);
        EXPECT_EQ(check.foreign(), found.foreign);
        EXPECT_EQ(run.missing_ranges(), found.missing);
        EXPECT_EQ(run.missing() == 0, found.missing.empty());
        EXPECT_EQ(check.good(true), found.taken == 6 && found.disordered == 0);
        EXPECT_EQ(check.good(false), check.good(true) || (found.taken == 4 && !found.missing.empty()));
    }
}

} // namespace
} // namespace kvr::test
