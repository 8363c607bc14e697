// SPDX-License-Identifier: MIT
// The completion scripts in the shells that they are for, found where a package puts them; and what completion must not
// do to somebody who types.
#include <regex>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>

#include "kvr_program.h"

namespace kvr::test {
namespace {

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
        ::setenv("KVR_HOME", path().c_str(), 1);
        ::setenv("TERM", "dumb", 1);
        ::unsetenv("KVR_QMGR");
    }
};

const std::vector<std::pair<std::string, std::string>> kCases = {
    // typed, and what it has become after TAB
    {"kvr comple", "kvr completion"},
    {"kvr put --data-fi", "kvr put --data-file"},
    {"kvr -m EA", "kvr -m EAST"},
    {"kvr put TO", "kvr put TO.WEST"},
    {"kvr run EA", "kvr run EAST.WEST"},
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
std::string inserted(const std::string& typed, const std::string& becomes) {
    return becomes + (becomes == typed || becomes.ends_with('=') || becomes.ends_with('/') ? "" : " ");
}

/// A shell on a terminal of its own, whose start file binds Ctrl-G to showing and emptying the line.
class Terminal {
  public:
    Terminal(const std::filesystem::path& folder, const std::vector<const char*>& command)
        : pid_(::forkpty(&fd_, nullptr, nullptr, nullptr)) {
        if (pid_ == 0) {
            std::filesystem::current_path(folder);
            std::vector<char*> words;
            for (const char* word : command) {
                words.push_back(const_cast<char*>(word));
            }
            words.push_back(nullptr);
            ::execvp(words[0], words.data());
            ::_exit(1);
        }
        (void)after("ready", ">");
    }
    ~Terminal() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        ::close(fd_);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    std::string complete(const std::string& typed) {
        const std::string keys = typed + "\t\a";
        EXPECT_EQ(::write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
        return after("<<", ">>");
    }

  private:
    /// What stands between these two in the output.
    std::string after(const std::string& begin, const std::string& end) {
        constexpr int kPatience = 60'000;
        for (;;) {
            const std::size_t from = seen_.find(begin);
            const std::size_t to = from == std::string::npos ? from : seen_.find(end, from + begin.size());
            if (to != std::string::npos) {
                const std::string text = seen_.substr(from + begin.size(), to - from - begin.size());
                seen_.erase(0, to + end.size());
                return text;
            }
            pollfd wait{fd_, POLLIN, 0};
            char bytes[4096];
            const ssize_t count = ::poll(&wait, 1, kPatience) == 1 ? ::read(fd_, bytes, sizeof bytes) : -1;
            if (count <= 0) {
                ADD_FAILURE() << "the shell said no more than " << seen_;
                return {};
            }
            seen_.append(bytes, static_cast<std::size_t>(count));
        }
    }

    int fd_ = -1;
    pid_t pid_;
    std::string seen_;
};

TEST_F(Completion, Bash) {
    const std::string start = file("start", R"(PS1='ready>'
        . /usr/share/bash-completion/bash_completion
        show() { printf '<<%s>>' "$READLINE_LINE"; READLINE_LINE= READLINE_POINT=0; }
        bind -x '"\C-g": show'
        bind 'set enable-bracketed-paste off')");
    Terminal bash(path(), {"bash", "--noprofile", "--rcfile", start.c_str(), "-i"});
    for (const auto& [typed, becomes] : kCases) {
        EXPECT_EQ(bash.complete(typed), inserted(typed, becomes));
    }
}

TEST_F(Completion, Zsh) {
    file(".zshrc", R"(PS1='ready>'
        fpath=()" KVR_COMPLETION_SHARE R"(/zsh/vendor-completions $fpath)
        autoload -Uz compinit && compinit -u -D
        show() { print -rn -- "<<$BUFFER>>"; BUFFER= }
        zle -N show && bindkey '^G' show)");
    Terminal zsh(path(), {"zsh", "-d", "-i"});
    for (const auto& [typed, becomes] : kCases) {
        EXPECT_EQ(zsh.complete(typed), inserted(typed, becomes));
    }
}

TEST_F(Completion, Fish) {
    file("in", "");
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

} // namespace
} // namespace kvr::test
