// SPDX-License-Identifier: MIT
// kvr completion: prints a script that teaches a shell to complete kvr's command line, and answers that script. The
// scripts only hand over what was typed; what can follow is decided here, by the program that the line is for.
#include <algorithm>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "completion.h"
#include "output.h"

namespace kvr {
namespace {

// readline has cut the words at '=', '@' and ':', too, and replaces only what follows the last of them.
constexpr const char* kBash = R"(# bash completion for kvr
_kvr() {
    local rest=${COMP_LINE:0:COMP_POINT} piece words=() reply breaks=${COMP_WORDBREAKS//[^=@:]/}
    for piece in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
        if [[ ${#words[@]} == 0 || $rest == [[:space:]]* ]]; then
            words+=('')
        fi
        rest=${rest#"${rest%%[![:space:]]*}"}
        [[ $rest == "$piece"* ]] || piece=$rest # the cursor stands in the word
        words[-1]+=$piece
        rest=${rest#"$piece"}
    done
    mapfile -t reply < <("$1" completion bash -- "${words[@]}" 2>/dev/null)
    case ${reply[0]-} in
        files*) compopt -o default ;;
        folders*) compopt -o dirnames ;;
    esac
    local word=${words[-1]} cut=
    if [[ $breaks ]]; then
        cut=${word%"${word##*[$breaks]}"}
    fi
    COMPREPLY=("${reply[@]:1}")
    COMPREPLY=("${COMPREPLY[@]#"$cut"}")
    if [[ ${COMPREPLY[0]-} == *= ]]; then
        compopt -o nospace
    fi
}
complete -F _kvr kvr
)";

constexpr const char* kZsh = R"(#compdef kvr
# zsh completion for kvr
_kvr() {
    local -a reply goes_on
    reply=("${(@f)$(${(Q)words[1]} completion zsh -- "${(@)words[1,CURRENT-1]}" "$IPREFIX$PREFIX" 2>/dev/null)}")
    local kind=$reply[1]
    shift reply
    case $kind in
        files*) compset -p ${kind#* }; _files ;;
        folders*) compset -p ${kind#* }; _files -/ ;;
        words)
            (( $#reply )) || return 1
            [[ $reply[1] == *=(|:*) ]] && goes_on=(-S '')
            _describe kvr reply "${goes_on[@]}" ;;
        *) return 1 ;;
    esac
}
if [[ $funcstack[1] == _kvr ]]; then
    _kvr "$@"
else
    compdef _kvr kvr
fi
)";

constexpr const char* kFish = R"(# fish completion for kvr
function __kvr_complete
    set -l words (commandline -opc)
    set -l word (commandline -ct)
    set -l reply ($words[1] completion fish -- $words "$word" 2>/dev/null)
    set -l kind (string split ' ' -- "$reply[1]")
    switch "$kind[1]"
        case files folders
            set -l path (string sub --start (math $kind[2] + 1) -- "$word")
            set -l before (string sub --length $kind[2] -- "$word")
            if test $kind[1] = files
                string replace --regex '^' -- $before (__fish_complete_path "$path")
            else
                string replace --regex '^' -- $before (__fish_complete_directories "$path" '')
            end
        case words
            printf '%s\n' $reply[2..-1]
    end
end
complete -c kvr -f -a '(__kvr_complete)'
)";

/// The answer to a script: what kind of candidates there are, for paths with the place where the path begins, then the
/// candidates, one on each line.
void answer(const std::string& shell, const Completion& completion) {
    if (completion.paths != Paths::kNone) {
        print(fmt::format("{} {}\n", completion.paths == Paths::kFiles ? "files" : "folders", completion.path_at));
        return;
    }
    print("words\n");
    for (const auto& [word, help] : completion.candidates) {
        const bool bare = shell == "bash" || help.empty();
        print(word + (bare ? "" : (shell == "zsh" ? ":" : "\t") + printable(help)) + "\n");
    }
}

} // namespace

void add_completion_command(CLI::App& app, GlobalOptions& global) {
    auto shell = std::make_shared<std::string>();
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App* command = app.add_subcommand("completion", "Print a completion script for a shell");
    command->add_option("shell", *shell, "Shell that the script is for")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}).description(""))
        ->type_name("bash|zsh|fish");
    command->add_option("words", *words, "After --, a command line so far: print what the last word can become")
        ->type_name("WORD");
    set_examples(*command, "  kvr completion bash > ~/.local/share/bash-completion/completions/kvr\n"
                           "  kvr completion zsh > ~/.zfunc/_kvr      # a folder of the fpath, before compinit\n"
                           "  kvr completion fish > ~/.config/fish/completions/kvr.fish\n");
    command->callback([shell, words, &app, &global] {
        if (!words->empty()) {
            answer(*shell, complete(app, global, *words));
        } else {
            print(*shell == "bash" ? kBash : *shell == "zsh" ? kZsh : kFish);
        }
    });
}

} // namespace kvr
