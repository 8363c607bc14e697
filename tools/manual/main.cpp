// SPDX-License-Identifier: MIT
// Writes a manual page for kvr and for each of its commands: kvr_manual PARTS-FOLDER OUTPUT-FOLDER DATE. The pages of
// commands that are no more vanish from the output folder; parts of such commands are an error, and so are references
// to pages that are not there, in any page of the folders beside it.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <stdexcept>

#include <fmt/format.h>

#include "command_line.h"
#include "page.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

constexpr const char* kCommonParts = "common";

class Manual {
  public:
    Manual(fs::path parts, fs::path out, std::string date)
        : parts_(std::move(parts)), out_(std::move(out)), date_(std::move(date)),
          common_(read_parts(parts_, kCommonParts)) {
        fs::remove_all(out_);
        fs::create_directories(out_);
    }

    void write(const CLI::App& command) {
        const std::string name = page_name(command);
        std::ofstream file(out_ / (name + ".1"));
        file << command_page(command, read_parts(parts_, name), common_, date_) << std::flush;
        if (!file) {
            throw std::runtime_error("cannot write " + (out_ / name).native() + ".1");
        }
        written_.insert(name);
        for (const CLI::App* each : command.get_subcommands([](const CLI::App*) { return true; })) {
            write(*each);
        }
    }

    void refuse_idle_parts() const {
        for (const auto& entry : fs::directory_iterator(parts_)) {
            const std::string name = entry.path().stem().native();
            if (name != kCommonParts && !written_.contains(name)) {
                throw std::runtime_error(entry.path().native() + " belongs to no command");
            }
        }
    }

    void refuse_dead_references() const {
        for (const auto& entry : fs::recursive_directory_iterator(out_.parent_path())) {
            if (entry.is_regular_file()) {
                refuse_dead_references_of(entry.path());
            }
        }
    }

  private:
    /// "kvr-put(1)", in whatever type.
    void refuse_dead_references_of(const fs::path& page) const {
        static const std::regex kReference(R"(\b(kvr(?:[a-z]|\\?-)*)(?:\\fR| )\(([157])\))");
        std::ifstream file(page);
        const std::string text((std::istreambuf_iterator<char>(file)), {});
        for (std::sregex_iterator found(text.begin(), text.end(), kReference), end; found != end; ++found) {
            std::string name = (*found)[1];
            std::erase(name, '\\');
            const std::string section = (*found)[2];
            if (!fs::exists(out_.parent_path() / ("man" + section) / fmt::format("{}.{}", name, section))) {
                throw std::runtime_error(
                    fmt::format("{} refers to {}({}), which is not there", page.native(), name, section));
            }
        }
    }

    fs::path parts_;
    fs::path out_;
    std::string date_;
    Sections common_;
    std::set<std::string> written_;
};

} // namespace
} // namespace kvr

int main(int argc, char** argv) {
    constexpr int kArguments = 4;
    if (argc != kArguments) {
        (void)std::fprintf(stderr, "kvr_manual: give the folder of the parts, the folder to write to, and the date\n");
        return kvr::kExitUsage;
    }
    try {
        CLI::App app;
        kvr::GlobalOptions global;
        kvr::add_command_line(app, global);
        kvr::Manual manual(argv[1], argv[2], argv[3]);
        manual.write(app);
        manual.refuse_idle_parts();
        manual.refuse_dead_references();
        return kvr::kExitDone;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "kvr_manual: %s\n", error.what());
        return kvr::kExitFailed;
    }
}
