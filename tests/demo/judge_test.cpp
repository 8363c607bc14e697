// SPDX-License-Identifier: MIT
// The judge must see every kind of damage: each case does one to a good run and names the faults that must be found.
#include <gmock/gmock.h>

#include "judge.h"
#include "store.h"
#include "support/folder.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "T";

/// A message on its way to a queue, to be damaged.
struct Copy {
    T_KAVRO_MD descriptor;
    std::string data;
    std::vector<std::string> attachments;
};

/// Two queue managers in a folder, with a good run of six messages: two plain ones, an attached one, a file message,
/// a plain one, and one without a header on the dead-letter queue.
struct Scene {
    Scene() {
        fs::create_directories(spool);
        run.tag = kTag;
        run.spools = {spool};
        for (const char kind : std::string_view("DDAFDH")) {
            const std::uint64_t number = run.sent.size() + 1;
            const NumberedMessage message{number, *kind_of(kind), number * 100};
            run.sent.push_back(message);
            Copy copy{descriptor_of(kTag, message), body_of(kTag, message), {}};
            for (const NumberedFile& file : files_of(kTag, message)) {
                copy.attachments.push_back(write_file(spool, file));
            }
            if (message.kind == MessageKind::kFile) {
                copy.data = std::exchange(copy.attachments, {}).front();
            }
            (message.kind == MessageKind::kHeaderless ? dead : delivered).push_back(std::move(copy));
        }
    }

    Verdict judged() {
        put({folder.path() / "WEST", "ORDERS"}, delivered, run.delivered);
        put({folder.path() / "EAST", "DEAD"}, dead, run.dead);
        put({folder.path() / "NORTH", "XMIT"}, waiting, run.waiting);
        return judge(run);
    }
    static void put(const Place& place, const std::vector<Copy>& copies, std::vector<Place>& places) {
        Store::create(place.store, place.store.filename(), {.sync = false});
        const auto store = Store::open(place.store);
        store->queue_define(place.queue, "");
        for (const Copy& copy : copies) {
            store->put(place.queue, OutgoingMessage{&copy.descriptor, copy.attachments, copy.data});
        }
        places = {place};
    }

    TemporaryFolder folder;
    fs::path spool = folder.path() / "spool";
    Run run;
    std::vector<Copy> delivered;
    std::vector<Copy> dead;
    std::vector<Copy> waiting;
};

void twice(Scene& scene) {
    scene.delivered.push_back(scene.delivered.back());
}
void lose_two(Scene& scene) {
    scene.delivered.erase(scene.delivered.begin(), scene.delivered.begin() + 2);
}
void lose_both_ends(Scene& scene) {
    scene.delivered.erase(scene.delivered.begin());
    scene.delivered.pop_back();
}
void also_waiting(Scene& scene) {
    scene.waiting = {scene.delivered.back()};
    scene.waiting[0].data.insert(0, sizeof(T_KAVRO_HDR_XMITQ), 'x');
}
void waiting_only(Scene& scene) {
    also_waiting(scene);
    scene.delivered.pop_back();
}
void altered_file(Scene& scene) {
    const std::string& path = scene.delivered[2].attachments[1];
    std::string bytes = contents(path);
    bytes.back() ^= 1;
    std::ofstream(path) << bytes;
}
void longer_file(Scene& scene) {
    std::ofstream(scene.delivered[3].data, std::ios::app) << 'x';
}

TEST(Judge, FindsEveryFaultAndNoOther) {
    constexpr std::uint64_t kTwoSmallOnes = 2 * (75 + 272) + 100 + 200;
    struct Allowed {
        std::uint64_t cuts = 0;
        std::uint64_t window = 0; ///< bytes that a cut may cost
        std::uint64_t repeats = 0;
    };
    const struct {
        const char* name;
        Allowed allowed;
        std::function<void(Scene&)> damage;
        std::vector<const char*> faults; ///< parts of their texts
    } cases[] = {
        {"nothing", {}, [](Scene&) {}, {}},
        {"altered", {}, [](Scene& s) { s.delivered[1].data[77] ^= 1; }, {"message 2 of 200 bytes"}},
        {"descriptor", {}, [](Scene& s) { s.delivered[0].descriptor.iPriority ^= 1; }, {"descriptor has changed"}},
        {"its last field", {}, [](Scene& s) { s.delivered[0].descriptor.sPutTime[5] = '9'; }, {"descriptor has"}},
        {"foreign", {1, 900}, [](Scene& s) { s.delivered[0].descriptor.sMsgId[0] = 'U'; }, {"never put"}},
        {"disordered", {}, [](Scene& s) { std::swap(s.delivered[0], s.delivered[1]); }, {"message 1 was delivered"}},
        {"twice", {}, twice, {"1 second copies, 0 allowed"}},
        {"twice, allowed", {.repeats = 1}, twice, {}},
        {"missing", {.cuts = 1}, [](Scene& s) { s.delivered.pop_back(); }, {"message 5 is nowhere"}},
        {"lost in a cut", {1, kTwoSmallOnes}, lose_two, {}},
        {"lost beyond the window", {1, kTwoSmallOnes - 1}, lose_two, {"message 2 is nowhere"}},
        {"lost at two places", {1, 900}, lose_both_ends, {"missing at 2 places"}},
        {"altered file", {}, altered_file, {"is not the one that was sent"}},
        {"longer file", {}, longer_file, {"message 4: the file"}},
        {"fewer files", {}, [](Scene& s) { s.delivered[2].attachments.pop_back(); }, {"1 files instead", "no message"}},
        {"strange file", {}, [](Scene& s) { std::ofstream(s.spool / "half") << 'x'; }, {"belongs to no message"}},
        {"no header", {}, [](Scene& s) { s.delivered.push_back(std::exchange(s.dead, {})[0]); }, {"no destination"}},
        {"dead letter altered", {}, [](Scene& s) { s.dead[0].data.back() ^= 1; }, {"message 6 has changed"}},
        {"waits with its header", {}, waiting_only, {}},
        {"delivered and waiting", {}, also_waiting, {"1 second copies"}},
    };
    for (const auto& [name, allowed, damage, faults] : cases) {
        SCOPED_TRACE(name);
        Scene scene;
        scene.run.cuts = allowed.cuts;
        scene.run.window = allowed.window;
        scene.run.repeats = allowed.repeats;
        damage(scene);
        const Verdict verdict = scene.judged();
        ASSERT_EQ(verdict.faults.size(), faults.size()) << testing::PrintToString(verdict.faults);
        for (std::size_t i = 0; i < faults.size(); ++i) {
            EXPECT_THAT(verdict.faults[i], testing::HasSubstr(faults[i]));
        }
        if (faults.empty()) {
            EXPECT_EQ(verdict.delivered + verdict.waiting + verdict.dead + verdict.lost, 6 + verdict.repeated);
        }
    }
}

} // namespace
} // namespace kvr::test
