// SPDX-License-Identifier: MIT
#include "page.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>

#include <fmt/format.h>

#include "attributes.h"
#include "roff.h"

namespace kvr {
namespace {

std::vector<const CLI::App*> commands_of(const CLI::App& command) {
    return command.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App& root_of(const CLI::App& command) {
    return command.get_parent() == nullptr ? command : root_of(*command.get_parent());
}

std::string words_of(const CLI::App& command) {
    return (command.get_parent() == nullptr ? "" : words_of(*command.get_parent()) + " ") + command.get_name();
}

std::string reference(const std::string& page) {
    return "\\fB" + roff(page) + "\\fR(1)";
}

bool has_value(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

/// "PORT" and "0 to 65535" of "PORT:INT in [0 - 65535]".
std::pair<std::string, std::string> value_and_range(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const std::size_t colon = type.find(':');
    const std::string check = colon == std::string::npos ? "" : type.substr(colon + 1);
    const std::size_t open = check.find('[');
    const std::size_t dash = check.find(" - ");
    std::string range = check == "NONNEGATIVE" ? "not negative" : check;
    if (open != std::string::npos && dash != std::string::npos) {
        range = check.substr(open + 1, dash - open - 1) + " to " + check.substr(dash + 3, check.find(']') - dash - 3);
    }
    return {type.substr(0, colon), range};
}

std::string list(const std::string& before, const std::set<CLI::Option*>& options) {
    std::set<std::string> names; // in the same order at each build
    for (const CLI::Option* option : options) {
        names.insert(option->get_lnames().front());
    }
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? " " + before + " " : ", ") + bold("--" + name);
    }
    return text.empty() ? text : text + ".";
}

/// What --help says of the option: its text, of which a default in brackets at the end is spelled out, and its rules.
std::string explanation(const CLI::Option& option) {
    std::string text = option.get_description();
    std::string standard;
    const std::size_t open = text.rfind(" [");
    if (open != std::string::npos && text.ends_with(']')) {
        standard = " Default: " + text.substr(open + 2, text.size() - open - 3) + ".";
        text.erase(open);
    }
    const std::string range = has_value(option) ? value_and_range(option).second : "";
    text = roff(sentence(text + (range.empty() ? "" : " (" + range + ")")) + standard);
    if (!option.get_envname().empty()) {
        text += " Environment: " + bold(option.get_envname()) + ".";
    }
    return text + list("Only with", option.get_needs()) + list("Not with", option.get_excludes());
}

std::string option_tag(const CLI::Option& option) {
    std::string tag;
    for (const auto& [dashes, names] : {std::pair("-", &option.get_snames()), std::pair("--", &option.get_lnames())}) {
        for (const std::string& name : *names) {
            tag += (tag.empty() ? "" : ", ") + bold(dashes + name);
        }
    }
    if (!has_value(option)) {
        return tag;
    }
    const std::string value = italic(value_and_range(option).first);
    return tag + (option.get_items_expected_min() > 0 ? " " + value : "[=" + value + "]");
}

/// The options of `level` that `command` does not have itself, or all of its own.
std::string options_text(const CLI::App& level, const CLI::App& command) {
    std::string text;
    for (const std::string& group : level.get_groups()) {
        const auto options = level.get_options([&](const CLI::Option* each) {
            return each->nonpositional() && each->get_group() == group &&
                   (&level == &command || command.get_option_no_throw("--" + each->get_lnames().front()) == nullptr);
        });
        if (group.empty() || options.empty()) {
            continue;
        }
        text += group == "Options" ? "" : ".SS " + group + "\n";
        for (const CLI::Option* option : options) {
            text += tagged(option_tag(*option), explanation(*option));
        }
    }
    return text;
}

std::vector<const CLI::Option*> arguments_of(const CLI::App& command) {
    return command.get_options([](const CLI::Option* each) { return each->get_positional(); });
}

std::string argument(const CLI::Option& option) {
    const bool many = option.get_items_expected_max() > 1;
    const std::string name = italic(value_and_range(option).first) + (many ? " ..." : "");
    return option.get_required() ? name : "[" + name + "]";
}

std::string arguments_text(const CLI::App& command) {
    std::string text;
    for (const CLI::Option* option : arguments_of(command)) {
        text += tagged(italic(value_and_range(*option).first), explanation(*option));
    }
    return text;
}

std::string synopsis(const CLI::App& command) {
    std::string text = bold(words_of(command)) + " [" + italic("OPTION") + " ...]";
    for (const CLI::Option* option : arguments_of(command)) {
        text += " " + argument(*option);
    }
    if (!commands_of(command).empty()) {
        const bool needed = command.get_require_subcommand_min() > 0;
        text += (needed ? " " : " [") + italic("COMMAND") + " ..." + (needed ? "" : "]");
    }
    return text + "\n";
}

std::string commands_text(const CLI::App& command) {
    std::string text;
    for (const CLI::App* each : commands_of(command)) {
        text += tagged(bold(each->get_name()),
                       roff(sentence(each->get_description())) + " See " + reference(page_name(*each)) + ".");
    }
    return text;
}

/// The footer of --help without its title and its last paragraph, which points to other helps: commands are indented,
/// the rest is text.
std::string examples_text(const CLI::App& command) {
    std::string footer = command.get_footer();
    footer.erase(std::min(footer.rfind("\n\n"), footer.size()));
    std::istringstream lines(footer);
    std::string text;
    std::string block;
    std::string prose;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(' ')) {
            block += line.substr(2) + "\n";
        } else if (line != "Examples:" && !line.empty()) {
            prose += line + "\n";
        }
    }
    text += block.empty() ? "" : verbatim(block);
    return text + (prose.empty() ? "" : ".PP\n" + roff(prose));
}

std::string see_also(const CLI::App& command, const std::string& more) {
    std::set<std::string> pages;
    if (command.get_parent() != nullptr) {
        pages = {page_name(root_of(command)) + "(1)", page_name(*command.get_parent()) + "(1)"};
    }
    for (const CLI::App* each : commands_of(command)) {
        pages.insert(page_name(*each) + "(1)");
    }
    std::istringstream words(more);
    for (std::string word; words >> word;) {
        pages.insert(word);
    }
    std::string text;
    for (const std::string& page : pages) {
        const std::size_t end = page.find('(');
        text += (text.empty() ? "" : ",\n") + bold(page.substr(0, end)) + page.substr(end);
    }
    return text + "\n";
}

std::string first_lower(std::string text) {
    text.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(text.front())));
    return text;
}

/// What the parser knows of the command, by section.
Sections described(const CLI::App& command) {
    const CLI::App& root = root_of(command);
    const std::string summary = command.get_description();
    const std::string prefix = words_of(command) + ": ";
    const std::string what = summary.starts_with(prefix) ? summary.substr(prefix.size()) : summary;
    const std::string name = what.ends_with('.') ? what.substr(0, what.size() - 1) : what;
    return {{"NAME", roff(page_name(command)) + " \\- " + roff(first_lower(name)) + "\n"},
            {"SYNOPSIS", synopsis(command)},
            {"COMMANDS", commands_text(command)},
            {"ARGUMENTS", arguments_text(command)},
            {"OPTIONS", options_text(command, command)},
            {"GLOBAL OPTIONS", &command == &root ? "" : options_text(root, command)},
            {"EXAMPLES", examples_text(command)}};
}

std::string text_of(const Sections& sections, const std::string& name) {
    const auto found = sections.find(name);
    return found == sections.end() ? std::string() : found->second;
}

} // namespace

std::string page_name(const CLI::App& command) {
    std::string name = words_of(command);
    std::replace(name.begin(), name.end(), ' ', '-');
    return name;
}

std::string command_page(const CLI::App& command, const Sections& parts, const Sections& common,
                         const std::string& date) {
    const std::string title = with_case(page_name(command), std::toupper);
    std::string page = ".TH " + title + " 1 " + date + " \"kvr " KVR_VERSION "\" \"Message channel\"\n.nh\n";
    const Sections own = described(command);
    for (const std::string name : kSections) {
        const std::string more = text_of(common, name) + text_of(parts, name);
        const std::string text = name == "SEE ALSO" ? see_also(command, more) : text_of(own, name) + more;
        page += text.empty() ? text : fmt::format(".SH {}\n{}", name, text);
    }
    return page;
}

} // namespace kvr
