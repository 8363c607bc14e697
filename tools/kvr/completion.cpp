// SPDX-License-Identifier: MIT
#include "completion.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <set>

#include <CLI/CLI.hpp>

#include "attributes.h"
#include "session.h"
#include "store/store.h"

namespace kvr {
namespace {

constexpr std::chrono::milliseconds kPatience{300}; ///< for another process in the store

/// The word as a shell would hand it over: without its quotes, closed or not, and with the home folder for "~/".
std::string unquoted(const std::string& typed) {
    std::string word;
    char quote = 0;
    for (std::size_t at = 0; at < typed.size(); ++at) {
        const char c = typed[at];
        if (quote == 0 ? c == '\'' || c == '"' : c == quote) {
            quote = quote == 0 ? c : '\0';
        } else if (c == '\\' && quote != '\'' && at + 1 < typed.size()) {
            word += typed[++at];
        } else {
            word += c;
        }
    }
    const char* const user_home = std::getenv("HOME");
    return typed.starts_with("~/") && user_home != nullptr ? user_home + word.substr(1) : word;
}

bool takes_value(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

/// Without what the parser adds about its range: "PORT" of "PORT:INT in [0 - 65535]".
std::string value_name(const CLI::Option& option) {
    const std::string name = option.get_type_name();
    return name.substr(0, name.find(':'));
}

/// The line up to the word in question: the command, and what is expected next.
class CommandLine {
  public:
    CommandLine(const CLI::App& app, GlobalOptions& global) : command_(&app), global_(global) {}

    void take(const std::string& word) {
        if (awaiting_ != nullptr) {
            set(*awaiting_, word);
            awaiting_ = nullptr;
        } else if (word == "--" && !only_arguments_) {
            only_arguments_ = true;
        } else if (word.starts_with('-') && word != "-" && !only_arguments_) {
            take_option(word);
        } else {
            take_argument(word);
        }
    }

    [[nodiscard]] const CLI::App& command() const { return *command_; }
    [[nodiscard]] bool takes_options() const { return !only_arguments_ && awaiting_ == nullptr; }
    [[nodiscard]] bool is_used(const CLI::Option& option) const { return used_.contains(&option); }

    /// Commands that can follow.
    [[nodiscard]] std::vector<const CLI::App*> next_commands() const {
        return command_->get_subcommands([this](const CLI::App*) { return awaiting_ == nullptr; });
    }

    /// The option whose value comes next, else the argument; null for none.
    [[nodiscard]] const CLI::Option* expected() const {
        if (awaiting_ != nullptr) {
            return awaiting_;
        }
        const auto positionals = command_->get_options([](const CLI::Option* each) { return each->get_positional(); });
        if (positionals.empty() ||
            (arguments_ >= positionals.size() && positionals.back()->get_items_expected_max() <= 1)) {
            return nullptr;
        }
        return positionals[std::min(arguments_, positionals.size() - 1)];
    }

    /// The option of this name, of the command or of those that it belongs to.
    [[nodiscard]] const CLI::Option* find(const std::string& name) const {
        for (const CLI::App* level = command_; level != nullptr; level = level->get_parent()) {
            if (const CLI::Option* option = level->get_option_no_throw(name); option != nullptr) {
                return option;
            }
        }
        return nullptr;
    }

  private:
    void take_argument(const std::string& word) {
        const auto named = command_->get_subcommands([&](const CLI::App* each) { return each->get_name() == word; });
        if (named.empty()) {
            ++arguments_;
        } else {
            command_ = named.front();
        }
    }

    void take_option(const std::string& word) {
        const std::size_t short_length = 2; // of -m
        const std::size_t end = word.starts_with("--") ? word.find('=') : short_length;
        const CLI::Option* const option = find(word.substr(0, end));
        if (option == nullptr) {
            return;
        }
        used_.insert(option);
        if (!takes_value(*option)) {
            return;
        }
        if (end >= word.size()) {
            awaiting_ = option->get_items_expected_min() > 0 ? option : nullptr;
        } else {
            set(*option, word.substr(word.starts_with("--") ? end + 1 : end));
        }
    }

    void set(const CLI::Option& option, const std::string& value) {
        if (option.check_lname("home")) {
            global_.home = value;
        } else if (option.check_lname("qmgr")) {
            global_.qmgr = value;
        }
    }

    const CLI::App* command_;
    GlobalOptions& global_;
    const CLI::Option* awaiting_ = nullptr;
    std::size_t arguments_ = 0;
    bool only_arguments_ = false;
    std::set<const CLI::Option*> used_;
};

std::vector<Candidate> queues(const GlobalOptions& global) {
    std::vector<Candidate> found;
    for (const QueueInfo& queue : open_store(global)->queues()) {
        found.push_back({queue.name, queue.description});
    }
    return found;
}

std::vector<Candidate> plain(const std::vector<std::string>& words) {
    std::vector<Candidate> found;
    found.reserve(words.size());
    for (const std::string& word : words) {
        found.push_back({word, ""});
    }
    return found;
}

/// Names of this kind from the store, none where it cannot be read.
std::vector<Candidate> names(const std::string& kind, const GlobalOptions& global) {
    limit_waits(kPatience);
    set_notice(nullptr);
    try {
        return kind == "QUEUE"     ? queues(global)
               : kind == "CHANNEL" ? plain(open_store(global)->object_names("CHL"))
               : kind == "QMGR"    ? plain(qmgr_names(global))
                                   : std::vector<Candidate>();
    } catch (const std::exception&) {
        return {};
    }
}

class Completer {
  public:
    Completer(const CommandLine& line, const GlobalOptions& global, std::string word)
        : line_(line), global_(global), word_(std::move(word)) {}

    Completion result() {
        if (line_.takes_options() && word_.starts_with("--") && word_.find('=') != std::string::npos) {
            const std::size_t end = word_.find('=');
            const CLI::Option* option = line_.find(word_.substr(0, end));
            if (option != nullptr && takes_value(*option)) {
                offer_values(value_name(*option), end + 1);
            }
        } else if (line_.takes_options() && word_.starts_with('-')) {
            offer_options();
        } else {
            offer_argument();
        }
        return std::move(result_);
    }

  private:
    void offer(const std::string& word, const std::string& help) {
        if (word.starts_with(word_)) {
            result_.candidates.push_back({word, help});
        }
    }

    void offer_argument() {
        for (const CLI::App* each : line_.next_commands()) {
            offer(each->get_name(), each->get_description());
        }
        if (const CLI::Option* expected = line_.expected(); expected != nullptr) {
            offer_values(value_name(*expected), 0);
        } else if (word_.empty() && result_.candidates.empty() && line_.takes_options()) {
            offer_options();
        }
    }

    void offer_options() {
        for (const CLI::App* level = &line_.command(); level != nullptr; level = level->get_parent()) {
            for (const CLI::Option* option : level->get_options()) {
                const bool again = option->get_items_expected_max() > 1; // such as --attach
                for (const std::string& name : option->get_lnames()) {
                    if (line_.find("--" + name) == option && (again || !line_.is_used(*option))) {
                        offer("--" + name, option->get_description());
                    }
                }
            }
        }
    }

    /// @param at  where the value begins in the word
    void offer_values(const std::string& kind, std::size_t at) {
        const std::size_t mark = word_.find(kind == "ATTR=VALUE" ? '=' : '@', at);
        if (kind.starts_with("FILE") || kind == "DIR") {
            result_.paths = kind == "DIR" ? Paths::kFolders : Paths::kFiles;
            result_.path_at = at;
        } else if (kind == "ATTR=VALUE") {
            mark == std::string::npos ? offer_attributes() : offer_attribute_values(mark);
        } else if (kind == "QUEUE[@QMGR]" && mark != std::string::npos) {
            offer_all(names("QMGR", global_), mark + 1);
        } else if (kind == "CHANNEL|QUEUE") {
            offer_all(names("CHANNEL", global_), at);
            offer_all(names("QUEUE", global_), at);
        } else if (kind.find('|') != std::string::npos) {
            offer_all(plain(CLI::detail::split(kind, '|')), at);
        } else {
            offer_all(names(kind == "QUEUE[@QMGR]" ? "QUEUE" : kind, global_), at);
        }
    }

    void offer_all(const std::vector<Candidate>& values, std::size_t at) {
        for (const Candidate& value : values) {
            offer(word_.substr(0, at) + value.word, value.help);
        }
    }

    void offer_attributes() {
        for (const CLI::Option* option : line_.command().get_options()) {
            if (option->get_group() == kAttributeGroup) {
                offer(with_case(option->get_lnames().front(), std::toupper) + "=", option->get_description());
            }
        }
    }

    void offer_attribute_values(std::size_t equals) {
        const CLI::Option* option = line_.find("--" + CLI::detail::to_lower(word_.substr(0, equals)));
        if (option != nullptr && option->get_group() == kAttributeGroup) {
            offer_values(value_name(*option), equals + 1);
        }
    }

    const CommandLine& line_;
    const GlobalOptions& global_;
    std::string word_;
    Completion result_;
};

} // namespace

Completion complete(const CLI::App& app, GlobalOptions global, std::vector<std::string> words) {
    std::transform(words.begin(), words.end(), words.begin(), unquoted);
    CommandLine line(app, global);
    for (std::size_t at = 1; at + 1 < words.size(); ++at) {
        line.take(words[at]);
    }
    return Completer(line, global, words.empty() ? std::string() : words.back()).result();
}

} // namespace kvr
