// SPDX-License-Identifier: MIT
// Everything is judged by these proofs, so each kind of damage has to be seen: each case does one to a good run.
#include <array>

#include <gtest/gtest.h>

#include "proof/proof.h"
#include "store/xmit_header.h"
#include "support/folder.h"

namespace kvr::test {

using Messages = std::vector<ProofMessage>;
const std::string kHeader = xmit_header({"Q", "M"});
using Found = std::array<std::uint64_t, 6>; ///< taken, altered, repeated, disordered, foreign, missing

TEST(Proof, FindsEveryDamageAndNoOther) {
    const std::pair<void (*)(Messages&), Found> cases[] = {
        {[](Messages& all) { all[3].data += std::string(9, '\0'); }, {6}}, // as a path is padded
        {[](Messages& all) { all[0].data.insert(0, kHeader); }, {6}},
        {[](Messages& all) { all[1].data.back() ^= 1; }, {5, 1}},
        {[](Messages& all) { all[0].descriptor.sPutTime[6] = '9'; }, {5, 1}},
        {[](Messages& all) { std::ofstream(all[2].attachments[1]) << "other bytes"; }, {5, 1}},
        {[](Messages& all) { all[2].attachments.pop_back(); }, {5, 1}},
        {[](Messages& all) { std::swap(all[2].attachments[0], all[2].attachments[1]); }, {5, 1}},
        {[](Messages& all) { std::filesystem::remove(all[3].data); }, {5, 1}},
        {[](Messages& all) { all.push_back(all[4]); }, {7, 0, 1}},
        {[](Messages& all) { std::swap(all[0], all[1]); }, {6, 0, 0, 1}},
        {[](Messages& all) { all.pop_back(); }, {5, 0, 0, 0, 0, 1}},
        {[](Messages& all) { all[5].descriptor.sFmtName[0] = 'X'; }, {5, 0, 0, 0, 1, 1}},
        {[](Messages& all) { all[5].descriptor.iMsgSeqNo = 7; }, {5, 0, 0, 0, 1, 1}},
    };
    for (const auto& [damage, found] : cases) {
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
        EXPECT_EQ((Found{run.taken, run.altered, run.repeated, run.disordered, check.foreign(), run.missing()}), found);
        EXPECT_EQ(check.good(true), found == Found{6});
        EXPECT_EQ(check.good(false), check.good(true) || found == (Found{5, 0, 0, 0, 0, 1}));
    }
}

} // namespace kvr::test
