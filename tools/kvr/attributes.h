// SPDX-License-Identifier: MIT
// Attributes on the command line: ATTR=VALUE arguments and one option for each attribute of a class.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "store/schema.h"
#include "store/store.h"

namespace kvr {

/// The group of a command's options that stand for an attribute each.
constexpr const char* kAttributeGroup = "Attributes";

/// The text with std::toupper or std::tolower applied to each character.
std::string with_case(std::string_view text, int (*convert)(int));

struct AttributeArguments {
    std::vector<std::string> pairs;             ///< ATTR=VALUE
    std::map<std::string, std::string> options; ///< by attribute name
};

/// Adds the positional arguments and the options to a command. Secrets get neither.
std::shared_ptr<AttributeArguments> add_attribute_arguments(CLI::App& command, const ClassSpec& cls);

/// The attributes given, each checked by the schema; paths become absolute. Throws UsageError for what cannot be.
Attributes collect_attributes(const AttributeArguments& arguments, const ClassSpec& cls);

/// Throws Error for a path that names no file that this user can read.
void check_files(const Attributes& attributes, const ClassSpec& cls);

const ClassSpec& class_spec(const char* name);

/// How an attribute's value is shown: secrets are masked.
std::string shown_value(const ClassSpec& cls, const std::string& name, const std::string& value);

} // namespace kvr
