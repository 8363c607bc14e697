// SPDX-License-Identifier: MIT
// The judge must see every kind of damage: each case does one to a good run and names the fault that must be found.
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "judge.h"
#include "store.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "T";
constexpr std::uint64_t kMessages = 6;

/// A message on its way to a queue, to be damaged.
struct Copy {
    T_KAVRO_MD descriptor;
    std::string data;
    std::vector<std::string> attachments;
};

/// Two queue managers in a folder, with a good run of six messages: two plain ones, an attached one, a file message,
/// a plain one, and one without a header on the dead-letter queue.
class Scene {
  public:
    Scene() {
        std::string name = testing::TempDir() + "judge_XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        folder_ = name;
        fs::create_directories(folder_ / "out");
        fs::create_directories(folder_ / "spool");
        run.tag = kTag;
        run.files = folder_ / "out";
        run.spools = {folder_ / "spool"};
        run.delivered = {{folder_ / "WEST", "ORDERS"}};
        run.dead = {{folder_ / "EAST", "DEAD"}};
        run.waiting = {{folder_ / "EAST", "XMIT"}};
        for (const auto& [number, kind] : {std::pair(1, 'D'), {2, 'D'}, {3, 'A'}, {4, 'F'}, {5, 'D'}, {6, 'H'}}) {
            const NumberedMessage message{static_cast<std::uint64_t>(number), *kind_of(static_cast<char>(kind)),
                                          static_cast<std::size_t>(number) * 100};
            run.sent.push_back(message);
            Copy copy{descriptor_of(kTag, message), body_of(kTag, message), {}};
            for (const NumberedFile& file : files_of(kTag, message)) {
                copy.attachments.push_back(write_file(folder_ / "spool", file));
            }
            if (message.kind == MessageKind::kFile) {
                copy.data = copy.attachments.front();
                copy.attachments.clear();
            }
            (message.kind == MessageKind::kHeaderless ? dead : delivered).push_back(std::move(copy));
        }
    }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
    ~Scene() {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }

    Verdict judged() {
        Settings settings;
        settings.sync = false;
        for (const char* qmgr : {"EAST", "WEST"}) {
            Store::create(folder_ / qmgr, qmgr, settings);
        }
        const auto east = Store::open(folder_ / "EAST");
        const auto west = Store::open(folder_ / "WEST");
        west->queue_define("ORDERS", "");
        east->queue_define("XMIT", "");
        east->queue_define("DEAD", "");
        put(*west, "ORDERS", delivered);
        put(*east, "DEAD", dead);
        put(*east, "XMIT", waiting);
        return judge(run);
    }

    [[nodiscard]] fs::path spool() const { return folder_ / "spool"; }

    Run run;
    std::vector<Copy> delivered;
    std::vector<Copy> dead;
    std::vector<Copy> waiting;

  private:
    static void put(Store& store, const std::string& queue, const std::vector<Copy>& copies) {
        for (const Copy& copy : copies) {
            store.put(queue, OutgoingMessage{&copy.descriptor, copy.attachments, copy.data});
        }
    }

    fs::path folder_;
};

struct Damage {
    const char* name;
    std::function<void(Scene&)> act;
    const char* fault; ///< part of its text; empty: no fault
};

void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.name;
}

class JudgeFinds : public testing::TestWithParam<Damage> {};

TEST_P(JudgeFinds, TheFault) {
    Scene scene;
    GetParam().act(scene);
    const Verdict verdict = scene.judged();
    if (*GetParam().fault == '\0') {
        EXPECT_THAT(verdict.faults, testing::IsEmpty());
        EXPECT_EQ(verdict.delivered + verdict.waiting + verdict.dead + verdict.lost, kMessages + verdict.repeated);
    } else {
        EXPECT_THAT(verdict.faults, testing::ElementsAre(testing::HasSubstr(GetParam().fault)));
    }
}

void lose(Scene& scene, std::size_t index) {
    scene.delivered.erase(scene.delivered.begin() + static_cast<std::ptrdiff_t>(index));
}

/// One connection was cut, and may have cost this many bytes.
void allow_cut(Scene& scene, std::uint64_t window) {
    scene.run.cuts = 1;
    scene.run.window = window;
}

const std::uint64_t kTwoSmallOnes = 2 * (75 + 272) + 100 + 200;

INSTANTIATE_TEST_SUITE_P(
    , JudgeFinds,
    testing::Values(
        Damage{"Nothing", [](Scene&) {}, ""},
        Damage{"Altered", [](Scene& s) { s.delivered[1].data[77] ^= 1; }, "message 2 of 200 bytes"},
        Damage{"CutShort", [](Scene& s) { s.delivered[4].data.pop_back(); }, "499 bytes arrived"},
        Damage{"OtherDescriptor", [](Scene& s) { s.delivered[0].descriptor.iPriority ^= 1; }, "descriptor has changed"},
        Damage{"LastFieldOfTheDescriptor", [](Scene& s) { s.delivered[0].descriptor.sPutTime[5] = '9'; },
               "descriptor has changed"},
        Damage{"Foreign",
               [](Scene& s) {
                   s.delivered[0].descriptor.sMsgId[0] = 'U';
                   s.run.sent.erase(s.run.sent.begin());
               },
               "never put"},
        Damage{"Disordered", [](Scene& s) { std::swap(s.delivered[0], s.delivered[1]); },
               "message 1 was delivered after"},
        Damage{"Twice", [](Scene& s) { s.delivered.push_back(s.delivered.back()); }, "1 second copies, 0 allowed"},
        Damage{"TwiceAllowed",
               [](Scene& s) {
                   s.delivered.push_back(s.delivered.back());
                   s.run.repeats = 1;
               },
               ""},
        Damage{"Missing",
               [](Scene& s) {
                   lose(s, 4);
                   allow_cut(s, 0);
               },
               "message 5 is nowhere"},
        Damage{"LostInACut",
               [](Scene& s) {
                   lose(s, 0);
                   lose(s, 0);
                   allow_cut(s, kTwoSmallOnes);
               },
               ""},
        Damage{"LostBeyondTheWindow",
               [](Scene& s) {
                   lose(s, 0);
                   lose(s, 0);
                   allow_cut(s, kTwoSmallOnes - 1);
               },
               "message 2 is nowhere"},
        Damage{"LostAtTwoPlaces",
               [](Scene& s) {
                   lose(s, 4);
                   lose(s, 0);
                   allow_cut(s, kTwoSmallOnes);
               },
               "missing at 2 places"},
        Damage{"AlteredFile",
               [](Scene& s) {
                   std::fstream file(s.delivered[2].attachments[1], std::ios::in | std::ios::out | std::ios::binary);
                   file.seekp(-1, std::ios::end).put('\0').flush();
               },
               "is not the one that was sent"},
        Damage{"LongerFile", [](Scene& s) { std::ofstream(s.delivered[3].data, std::ios::app) << 'x'; },
               "message 4: the file"},
        Damage{"VanishedFile", [](Scene& s) { fs::remove(s.delivered[3].data); }, "message 4: the file"},
        Damage{"AttachmentDropped",
               [](Scene& s) {
                   fs::remove(s.delivered[2].attachments.back());
                   s.delivered[2].attachments.pop_back();
               },
               "1 files instead of 2"},
        Damage{"StrangeFile", [](Scene& s) { std::ofstream(s.spool() / "half") << 'x'; }, "belongs to no message"},
        Damage{"HeaderlessDelivered",
               [](Scene& s) {
                   std::swap(s.delivered, s.dead);
                   s.delivered.resize(1);
                   s.dead.clear();
                   s.run.sent.erase(s.run.sent.begin(), s.run.sent.end() - 1);
                   s.run.spools.clear();
               },
               "has no destination"},
        Damage{"DeadLetterAltered", [](Scene& s) { s.dead[0].data.back() ^= 1; }, "message 6 has changed"},
        Damage{"WaitsWithItsHeader",
               [](Scene& s) {
                   s.waiting.push_back(s.delivered[4]);
                   s.waiting[0].data.insert(0, sizeof(T_KAVRO_HDR_XMITQ), 'x');
                   lose(s, 4);
               },
               ""},
        Damage{"DeliveredAndWaiting",
               [](Scene& s) {
                   s.waiting.push_back(s.delivered[4]);
                   s.waiting[0].data.insert(0, sizeof(T_KAVRO_HDR_XMITQ), 'x');
               },
               "1 second copies"}),
    [](const auto& param) { return std::string(param.param.name); });

} // namespace
} // namespace kvr::test
