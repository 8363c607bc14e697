// SPDX-License-Identifier: MIT
// Messages that were sent and are kept: how they are shown, counted, chosen and sent again.
#include <ctime>

#include "kvr_program.h"
#include "store/store.h"
#include "support/peer.h"

namespace kvr::test {

/// A queue with messages 1 to 4: 1 and 3, which has a file, were sent over lines that broke, 2 over one that ended in
/// order, and 4 is new. 3 was sent in a later second than those before.
class KvrReplay : public ProgramTest {
  protected:
    KvrReplay() {
        done("define channel C XMITQ=Q CONNAME=h KEEPINT=3600");
        done("put Q body --dest D --count 2");
        done("put Q body --dest D --attach " + file("gone", "12345"));
        done("put Q body --dest D");
        const auto store = Store::open(path() / "EAST");
        const auto getter = store->drain(
            "Q", {.keep = KeepLimits{std::chrono::hours(1), 1 << 20}, .window = {{}, 1 << 20}, .repeat = false});
        send_one(*getter);
        EXPECT_EQ(getter->line_lost().messages, 1U);
        send_one(*getter);
        getter->line_ended();
        const std::time_t before = std::time(nullptr);
        EXPECT_TRUE(wait_until([&] { return std::time(nullptr) > before; }));
        send_one(*getter);
        EXPECT_EQ(getter->line_lost().messages, 1U);
    }
    static void send_one(Getter& getter) {
        std::vector<char> buffer(kMaxMessage);
        T_KAVRO_ACCESSORIES_MD files{};
        T_KAVRO_MD descriptor{};
        descriptor.pOptData = &files;
        EXPECT_EQ(getter.next(descriptor, buffer, false), 76);
        getter.commit();
    }
    [[nodiscard]] json plan(const std::string& options) const { return shown("replay " + options + " --dry-run"); }
    [[nodiscard]] std::string states(const std::string& options) const {
        std::string all;
        for (const json& message : shown("browse Q " + options)) {
            all += message["state"].get<std::string>() + " ";
        }
        return all;
    }
};

TEST_F(KvrReplay, KeptOnesAreShownAndCountedBesideTheOthers) {
    EXPECT_EQ(states("--kept"), "suspected kept suspected ");
    EXPECT_EQ(states(""), "ready ");
    EXPECT_THAT(done("browse Q --kept --count 1"), ContainsRegex("1  suspected  20[-0-9]{8}T[:0-9]{8}Z +4  D "));
    const json queue = shown("show queue Q")[0];
    EXPECT_EQ(std::tuple(queue["depth"], queue["kept"], queue["suspected"], queue["repeats"]), std::tuple(1, 3, 2, 0));
    EXPECT_EQ(shown("status")["channels"][0]["transmission_queue"]["kept_bytes"], queue["kept_bytes"]);
    EXPECT_THAT(done("status"), AllOf(HasSubstr("C: keeps 3 messages"),
                                      ContainsRegex("C: 2 messages can be gone .*, places 1 to 3; .*'kvr replay C ")));
    done("delete channel C");
    EXPECT_THAT(done("delete queue Q --purge"), HasSubstr("queue Q with 3 messages that it kept"));
}

TEST_F(KvrReplay, TheChosenOnesAreToldAndNoOthers) {
    const json kept = shown("browse Q --kept");
    const json suspected = plan("c --suspected");
    EXPECT_EQ(std::tuple(suspected["queue"], suspected["kept"], suspected["messages"], suspected["suspected"]),
              std::tuple("Q", 3, 2, 2));
    EXPECT_EQ(suspected["bytes"], 2 * (75 + 272 + 4) + 80 + 4 + 16);
    EXPECT_EQ(std::tuple(suspected["files"], suspected["file_bytes"], suspected["without_files"]), std::tuple(1, 5, 0));
    std::filesystem::remove(path() / "gone");
    const json last = plan("Q --last 1");
    EXPECT_EQ(std::tuple(last["messages"], last["files"], last["without_files"]), std::tuple(1, 0, 1));
    EXPECT_EQ(std::tuple(last["first"]["sequence"], last["last"]["msgid"]), std::tuple(3, kept[2]["msgid"]));
    const std::string time = kept[2]["used_at"];
    EXPECT_EQ(plan("C --since " + time)["first"]["sequence"], 3);
}

TEST_F(KvrReplay, TheChosenOnesAreSentAgainOnceThatIsConfirmed) {
    const std::string asked = "script -qec '$KVR replay C --suspected' /dev/null";
    file("answer", "n\n");
    EXPECT_EQ(start(asked + " <answer").result(), 1);
    EXPECT_EQ(shown("show queue Q")[0]["repeats"], 0);
    file("answer", "y\n");
    EXPECT_EQ(start(asked + " <answer").result(), 0);
    EXPECT_THAT(text("background.out"), AllOf(HasSubstr("2 of 3 kept messages"), HasSubstr("again? [y/N]")));
    EXPECT_EQ(states(""), "repeat repeat ready ");
    EXPECT_EQ(states("--kept"), "kept ");
    EXPECT_THAT(done("status"), HasSubstr("C: 2 messages are sent again"));
    done("define queue C");
    EXPECT_THAT(run("replay C --last 1 --yes").err, HasSubstr("taken for the channel"));
    EXPECT_EQ(states(""), "repeat repeat repeat ready ");
    EXPECT_THAT(done("replay Q --last 1 --yes"), HasSubstr("keeps no messages that were sent"));
}

} // namespace kvr::test
