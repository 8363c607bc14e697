// SPDX-License-Identifier: MIT
// The manual: well-formed, and its pages of formats beside what the program really writes.
#include <regex>

#include "kvr_program.h"
#include "support/peer.h"

namespace kvr::test {

class Manual : public ProgramTest {
  protected:
    /// As it is typed: "man1/kvr.1".
    static std::string page(const std::string& name) {
        const std::string source = contents(std::filesystem::path(KVR_PAGES) / name);
        EXPECT_NE(source, "") << name;
        return std::regex_replace(source, std::regex(R"(\\-)"), "-");
    }

    /// Members that the page lacks; attributes are there by another name.
    static void expect_members(const json& value, const std::string& page_text, const std::string& origin) {
        for (const auto& [name, member] : value.items()) {
            const bool named = value.is_object() && std::islower(static_cast<unsigned char>(name.front())) != 0;
            EXPECT_TRUE(!named || std::regex_search(page_text, std::regex("[ \n]" + name + "[ \n]"))) << origin << name;
            if (member.is_structured()) {
                expect_members(member, page_text, origin);
            }
        }
    }
};

TEST_F(Manual, IsReadWithoutAWarning) {
    Child reader = start("groff -man -T utf8 -ww -z " KVR_PAGES "/*/* && mandoc -T lint -W warning " KVR_PAGES "/*/*");
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(text("background.out") + text("background.err"), "");
}

/// A message with a file, from one queue of a manager to another, leaves traces everywhere.
TEST_F(Manual, NamesEveryMemberAndFileThatIsWritten) {
    const Child listener = start("exec $KVR listen --address 127.0.0.1 --port 0 --port-file port --journal journal");
    ASSERT_TRUE(wait_until([&] { return text("port").ends_with('\n'); }));
    done("define queue IN");
    done("define channel C XMITQ=Q CONNAME='127.0.0.1(" + std::to_string(std::stoi(text("port"))) + ")' KEEPINT=60");
    const std::string data = file("data", "x");
    const std::string formats = page("man5/kvr-json.5");
    const auto members = [&](const std::string& line) { expect_members(shown(line), formats, line + ": "); };
    members("put Q text --dest IN --attach " + data);
    const Child worker = start("exec $KVR run C", "worker");
    ASSERT_TRUE(wait_until([&] { return text("journal").find(R"("event":"message")") != std::string::npos; }));
    members("status");
    members("stop C");
    ASSERT_TRUE(wait_until([&] { return text("journal").find(R"("event":"end")") != std::string::npos; }));
    for (const char* line :
         {"browse Q --kept", "replay C --last 1 --dry-run", "browse IN --full", "get IN --out taken",
          "put IN --count 2 --size 1", "get IN --all --verify", "show", "release IN", "move IN Q", "create WEST",
          "delete qmgr WEST --yes", "dissect " KVR_CORPUS "/file_message_with_attachment"}) {
        members(line);
    }
    const std::string events = page("man5/kvr-journal.5");
    std::istringstream journal(text("journal"));
    for (std::string line; std::getline(journal, line);) {
        expect_members(json::parse(line), events, "journal: ");
        EXPECT_THAT(events, HasSubstr("\n.B " + json::parse(line)["event"].get<std::string>() + "\n"));
    }
    const std::string folder = page("man5/kvr-qmgr.5");
    for (const auto& each : std::filesystem::recursive_directory_iterator(path() / "EAST")) {
        std::string name = std::filesystem::relative(each.path(), path() / "EAST");
        name = std::regex_replace(name, std::regex("/[0-9]+([.])"), "/N$1");
        name = std::regex_replace(name, std::regex("(channel-)C|(log/)C"), "$1$2NAME");
        EXPECT_TRUE(each.is_directory() || name.starts_with("spool/") ||
                    folder.find("\n.I " + name + "\n") != std::string::npos)
            << name;
    }
}

} // namespace kvr::test
