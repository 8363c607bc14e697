// SPDX-License-Identifier: MIT
// The manual: well-formed, with all that the help has, and its pages of formats beside what the program really writes.
#include <regex>

#include "kvr_program.h"
#include "support/peer.h"

namespace kvr::test {
namespace {

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
    file("in", "");
    Child reader = start("groff -man -T utf8 -ww -z " KVR_PAGES "/*/* && mandoc -T lint -W warning " KVR_PAGES "/*/*");
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(text("background.out") + text("background.err"), "");
}

TEST_F(Manual, HasEachCommandAndOptionOfTheHelp) {
    for (const auto& each : std::filesystem::directory_iterator(KVR_PAGES "/man1")) {
        const std::string command = std::regex_replace(each.path().stem().string().substr(3), std::regex("-"), " ");
        const std::string help = std::regex_replace(done(command + " --help"), std::regex("\nExamples:[^]*"), "");
        static const std::regex kNames("\n  ([a-z]+  |-[^ \n]*)"); // not the arguments, which have one blank
        for (std::sregex_iterator found(help.begin(), help.end(), kNames), end; found != end; ++found) {
            const std::string name = std::regex_replace((*found)[1].str(), std::regex(".*,| "), "");
            EXPECT_THAT(page(each.path()), HasSubstr("\\fB" + name + "\\fR"));
        }
    }
}

TEST_F(Manual, RefersToPagesThatThereAre) {
    static const std::regex kReference(R"(\b(kvr[a-z-]*)(?:\\fR| )\(([157])\))");
    for (const auto& each : std::filesystem::recursive_directory_iterator(KVR_PAGES)) {
        const std::string source = each.is_regular_file() ? page(each.path()) : "";
        for (std::sregex_iterator found(source.begin(), source.end(), kReference), end; found != end; ++found) {
            const std::string section = (*found)[2];
            EXPECT_NE(page("man" + section + "/" + (*found)[1].str() + "." + section), "") << each.path();
        }
    }
}

/// A message with a file, from one queue of a manager to another, leaves traces everywhere.
TEST_F(Manual, NamesEveryMemberAndFileThatIsWritten) {
    const Child listener = start("exec $KVR listen --address 127.0.0.1 --port 0 --port-file port --journal journal");
    ASSERT_TRUE(wait_until([&] { return text("port").ends_with('\n'); }));
    done("define queue IN");
    done("define channel C XMITQ=Q CONNAME='127.0.0.1(" + std::to_string(std::stoi(text("port"))) + ")'");
    const std::string data = file("data", "x");
    const std::string formats = page("man5/kvr-json.5");
    const auto members = [&](const std::string& line) { expect_members(shown(line), formats, line + ": "); };
    members("put Q text --dest IN --attach " + data);
    const Child worker = start("exec $KVR run C", "worker");
    ASSERT_TRUE(wait_until([&] { return text("journal").find(R"("event":"message")") != std::string::npos; }));
    members("status");
    members("stop C");
    ASSERT_TRUE(wait_until([&] { return text("journal").find(R"("event":"end")") != std::string::npos; }));
    members("browse IN --full");
    members("get IN --out taken");
    members("put IN --count 2 --size 1");
    members("get IN --all --verify");
    members("show");
    members("release IN");
    members("move IN Q");
    members("create WEST");
    members("delete qmgr WEST --yes");
    members("dissect " KVR_CORPUS "/file_message_with_attachment");
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

} // namespace
} // namespace kvr::test
