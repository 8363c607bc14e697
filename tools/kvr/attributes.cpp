// SPDX-License-Identifier: MIT
#include "attributes.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "output.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMask = "********";

std::string attribute_names(const ClassSpec& cls) {
    std::string names;
    for (const AttrSpec& attr : cls.attrs) {
        if (attr.kind != AttrKind::kSecret) {
            names += (names.empty() ? "" : ", ") + std::string(attr.name);
        }
    }
    return names;
}

/// What help calls a value, and completion knows it by.
std::string value_name(const AttrSpec& attr) {
    switch (attr.kind) {
    case AttrKind::kNumber:
        return "NUMBER";
    case AttrKind::kPath:
        return "FILE";
    case AttrKind::kQueue:
        return "QUEUE";
    case AttrKind::kChoice:
        return std::string(attr.choices);
    case AttrKind::kAddress:
        return "HOST[(PORT)]";
    case AttrKind::kText:
    case AttrKind::kSecret:
        break;
    }
    return "TEXT";
}

void check_file(std::string_view attr, const fs::path& path) {
    std::error_code error;
    if (!fs::exists(path, error)) {
        throw Error(Errc::kNotFound, fmt::format("the file {} for {} does not exist: give the path of a PEM file",
                                                 printable(path.native()), attr));
    }
    if (!fs::is_regular_file(path, error) || ::access(path.c_str(), R_OK) != 0) {
        throw Error(Errc::kPermission, fmt::format("{} for {} cannot be read as a file: give the path of a PEM file "
                                                   "that this user may read",
                                                   printable(path.native()), attr));
    }
}

void add_attribute(Attributes& attributes, const ClassSpec& cls, const std::string& name, std::string value) {
    const AttrSpec* attr = find_attr(cls, name);
    if (attr == nullptr) {
        throw UsageError(
            fmt::format("there is no attribute '{}': use one of {}", printable(name), attribute_names(cls)));
    }
    if (attr->kind == AttrKind::kSecret) {
        throw UsageError(fmt::format("{} is not taken from the command line, where others can see it: use "
                                     "--keypass-file FILE, or - for standard input",
                                     attr->name));
    }
    try {
        if (attr->kind == AttrKind::kPath && !value.empty()) {
            value = fs::absolute(value).lexically_normal().native();
        }
        check_definition(cls.name, attr->name, value);
    } catch (const Error& error) {
        throw UsageError(fmt::format("{}: give another value, see --help", error.what()));
    }
    if (!attributes.emplace(attr->name, value).second) {
        throw UsageError(fmt::format("{} is given twice: give it once", attr->name));
    }
}

} // namespace

std::string with_case(std::string_view text, int (*convert)(int)) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [convert](unsigned char c) { return static_cast<char>(convert(c)); });
    return out;
}

const ClassSpec& class_spec(const char* name) {
    const ClassSpec* cls = find_class(name);
    if (cls == nullptr) {
        throw Error(Errc::kInvalid, fmt::format("the class {} is not known: the installation is damaged", name));
    }
    return *cls;
}

std::shared_ptr<AttributeArguments> add_attribute_arguments(CLI::App& command, const ClassSpec& cls) {
    auto arguments = std::make_shared<AttributeArguments>();
    command.add_option("attributes", arguments->pairs, "Attributes as ATTR=VALUE (or by the options below)")
        ->type_name("ATTR=VALUE");
    for (const AttrSpec& attr : cls.attrs) {
        if (attr.kind == AttrKind::kSecret) {
            continue;
        }
        std::string help(attr.help);
        if (attr.kind == AttrKind::kNumber) {
            help += fmt::format(" ({} to {})", attr.min, attr.max);
        }
        if (!attr.default_text.empty()) {
            help += fmt::format(" [{}]", attr.default_text);
        }
        const std::string name(attr.name);
        command
            .add_option_function<std::string>(
                "--" + with_case(name, std::tolower),
                [arguments, name](const std::string& value) { arguments->options[name] = value; }, help)
            ->type_name(value_name(attr))
            ->group(kAttributeGroup);
    }
    return arguments;
}

Attributes collect_attributes(const AttributeArguments& arguments, const ClassSpec& cls) {
    Attributes attributes;
    for (const std::string& pair : arguments.pairs) {
        const std::size_t equals = pair.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw UsageError(fmt::format("'{}' is not an attribute: write ATTR=VALUE with one of {}", printable(pair),
                                         attribute_names(cls)));
        }
        add_attribute(attributes, cls, with_case(pair.substr(0, equals), std::toupper), pair.substr(equals + 1));
    }
    for (const auto& [name, value] : arguments.options) {
        add_attribute(attributes, cls, name, value);
    }
    return attributes;
}

void check_files(const Attributes& attributes, const ClassSpec& cls) {
    for (const auto& [name, value] : attributes) {
        if (find_attr(cls, name)->kind == AttrKind::kPath && !value.empty()) {
            check_file(name, value);
        }
    }
}

std::string shown_value(const ClassSpec& cls, const std::string& name, const std::string& value) {
    const AttrSpec* attr = find_attr(cls, name);
    const bool secret = attr != nullptr && attr->kind == AttrKind::kSecret && !value.empty();
    return secret ? std::string(kMask) : value;
}

} // namespace kvr
