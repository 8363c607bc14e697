// SPDX-License-Identifier: MIT
// kvr completion: prints a script that teaches a shell the commands and options. It is made from the program's own
// parser, so it cannot be out of date.
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "output.h"

namespace kvr {
namespace {

/// Long options and sub-commands of a command, and the global options.
std::string words_of(const CLI::App& command, const CLI::App& root) {
    std::string words;
    for (const CLI::App* sub : command.get_subcommands([](const CLI::App*) { return true; })) {
        words += sub->get_name() + " ";
    }
    for (const CLI::App* level : {&root, &command}) {
        for (const CLI::Option* option : level->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                if (words.find("--" + name + " ") == std::string::npos) {
                    words += "--" + name + " ";
                }
            }
        }
    }
    return words;
}

void add_cases(std::string& cases, const CLI::App& command, const CLI::App& root, const std::string& path) {
    cases += fmt::format("        '{}') words='{}' ;;\n", path, words_of(command, root));
    for (const CLI::App* sub : command.get_subcommands([](const CLI::App*) { return true; })) {
        add_cases(cases, *sub, root, path.empty() ? sub->get_name() : path + " " + sub->get_name());
    }
}

std::string script(const CLI::App& root, bool zsh) {
    std::string cases;
    add_cases(cases, root, root, "");
    const std::string start = zsh ? "autoload -U +X bashcompinit && bashcompinit\n" : "";
    return start + R"(_kvr() {
    local current="${COMP_WORDS[COMP_CWORD]}" path='' word words=''
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case "$path:$word" in
)" +
           [&root] {
               std::string steps;
               for (const CLI::App* sub : root.get_subcommands([](const CLI::App*) { return true; })) {
                   steps += fmt::format("        ':{0}') path='{0}' ;;\n", sub->get_name());
                   for (const CLI::App* kind : sub->get_subcommands([](const CLI::App*) { return true; })) {
                       steps +=
                           fmt::format("        '{0}:{1}') path='{0} {1}' ;;\n", sub->get_name(), kind->get_name());
                   }
               }
               return steps;
           }() +
           R"(        esac
    done
    case "$path" in
)" + cases +
           R"(    esac
    COMPREPLY=($(compgen -W "$words" -- "$current"))
}
complete -o default -F _kvr kvr
)";
}

} // namespace

void add_completion_command(CLI::App& app, GlobalOptions& /*global*/) {
    auto shell = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("completion", "Print a completion script for a shell");
    command->add_option("shell", *shell, "bash or zsh")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh"}).description(""))
        ->type_name("bash|zsh");
    set_examples(*command, "  kvr completion bash > ~/.local/share/bash-completion/completions/kvr\n"
                           "  kvr completion zsh >> ~/.zshrc\n");
    command->callback([shell, &app] { print(script(app, *shell == "zsh")); });
}

} // namespace kvr
