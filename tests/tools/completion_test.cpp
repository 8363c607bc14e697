// SPDX-License-Identifier: MIT
// The completion scripts in the shells that they are for, found where a package puts them; and what completion must not
// do to somebody who types.
#include <regex>

#include <fcntl.h>
#include <pty.h>

#include "kvr_program.h"
#include "support/peer.h"

namespace kvr::test {

class Completion : public ProgramTest {
  protected:
    Completion() {
        done("define queue TO.WEST");
        done("define channel EAST.WEST XMITQ=TO.WEST CONNAME=h");
        std::filesystem::create_directory(path() / "folder");
        file("with blank", "");
        done("--home 'other home' create SOUTH"); // quotes are taken off and given to nobody
        done("--home 'other home' define queue THERE");
        ::setenv("PATH", (KVR_BIN ":" + std::string(std::getenv("PATH"))).c_str(), 1);
        ::setenv("XDG_DATA_DIRS", KVR_COMPLETION_SHARE ":/usr/share", 1);
        ::setenv("HOME", path().c_str(), 1);
        ::setenv("TERM", "dumb", 1);
    }
};

const std::vector<std::pair<std::string, std::string>> kCases = {
    // typed, and what it has become after TAB
    {"kvr comple", "kvr completion"},
    {"kvr put --data-fi", "kvr put --data-file"},
    {"kvr -m EA", "kvr -m EAST"},
    {"kvr put TO", "kvr put TO.WEST"},
    {"kvr run EA", "kvr run EAST.WEST"},
    {"kvr replay EA", "kvr replay EAST.WEST"},
    {"kvr replay TO", "kvr replay TO.WEST"},
    {"kvr set channel EAST.WEST XM", "kvr set channel EAST.WEST XMITQ="}, // a word that goes on
    {"kvr set channel EAST.WEST XMITQ=TO", "kvr set channel EAST.WEST XMITQ=TO.WEST"},
    {"kvr put Q --dest=TO", "kvr put Q --dest=TO.WEST"},
    {"kvr put Q --dest X@EA", "kvr put Q --dest X@EAST"},
    {"kvr dissect with", "kvr dissect with\\ blank"},
    {"kvr set qmgr CAFILE=with", "kvr set qmgr CAFILE=with\\ blank"},
    {"kvr listen --spool=fo", "kvr listen --spool=folder/"},
    {"kvr --home 'other home' put TH", "kvr --home 'other home' put THERE"},
    {"kvr --home nowhere put TO", "kvr --home nowhere put TO"},
};

/// A word that is complete has a blank after it.
static std::string inserted(const std::string& typed, const std::string& becomes) {
    return becomes + (becomes == typed || becomes.ends_with('=') || becomes.ends_with('/') ? "" : " ");
}

/// Types all cases in a shell on a terminal of its own, whose start file binds Ctrl-G to showing and emptying the line.
static void expect_completed(const std::string& folder, const std::string& shell) {
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        ::_exit(::execl("/bin/sh", "sh", "-c", ("cd " + folder + " && exec " + shell).c_str(), nullptr));
    }
    const Child child(pid);
    const UniqueFd fd(terminal);
    std::string seen;
    const auto shows = [&](const std::string& text) {
        return wait_until([&] {
            pollfd wait{fd.get(), POLLIN, 0};
            char bytes[4096];
            const ssize_t count = ::poll(&wait, 1, 100) == 1 ? ::read(fd.get(), bytes, sizeof bytes) : 0;
            seen.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
            return seen.find(text) != std::string::npos;
        });
    };
    ASSERT_TRUE(shows("ready>")) << seen;
    for (const auto& [typed, becomes] : kCases) {
        const std::string keys = typed + "\t\a";
        EXPECT_EQ(::write(fd.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
        ASSERT_TRUE(shows("<<" + inserted(typed, becomes) + ">>")) << seen;
    }
}

TEST_F(Completion, Bash) {
    expect_completed(path(), "bash --noprofile --rcfile " + file("start", R"(PS1='ready>'
        . /usr/share/bash-completion/bash_completion
        show() { printf '<<%s>>' "$READLINE_LINE"; READLINE_LINE= READLINE_POINT=0; }
        bind -x '"\C-g": show'
        bind 'set enable-bracketed-paste off')") +
                                 " -i");
}

TEST_F(Completion, Zsh) {
    file(".zshrc", R"(PS1='ready>'
        fpath=()" KVR_COMPLETION_SHARE R"(/zsh/vendor-completions $fpath)
        autoload -Uz compinit && compinit -u -D
        show() { print -rn -- "<<$BUFFER>>"; BUFFER= }
        zle -N show && bindkey '^G' show)");
    expect_completed(path(), "zsh -d -i");
}

TEST_F(Completion, Fish) {
    std::string script;
    std::string wanted;
    for (const auto& [typed, becomes] : kCases) {
        script += "complete -C \"" + typed + "\"; echo end\n";
        std::string word = becomes == typed ? "" : becomes.substr(typed.rfind(' ') + 1) + "\n";
        wanted += std::regex_replace(word, std::regex("\\\\"), "") + "end\n"; // fish puts them when it inserts the word
    }
    EXPECT_EQ(start("fish " + file("script", script), "fish").result(), 0);
    EXPECT_EQ(std::regex_replace(text("fish.out"), std::regex("\t.*"), ""), wanted);
}

/// Neither a word on standard error nor a wait for a process that is frozen in the store.
TEST_F(Completion, IsSilentAndWaitsForNobody) {
    const int fd = ::open((path() / "EAST/store/open.lock").c_str(), O_RDWR | O_CLOEXEC);
    struct flock all {};
    all.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &all), 0);
    EXPECT_EQ(done("completion bash -- kvr put ''"), "words\n");
    ::close(fd);
}

} // namespace kvr::test
