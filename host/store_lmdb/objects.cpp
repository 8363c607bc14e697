// SPDX-License-Identifier: MIT
// Objects of the store: a class, a name, attributes as texts.
#include <algorithm>
#include <cstring>

#include "store/names.h"
#include "store/schema.h"
#include "store_lmdb/lmdb_store.h"

namespace kvr {

namespace {

using Length = std::uint16_t;

std::string object_key(const std::string& cls, const std::string& name) {
    if (find_class(cls) == nullptr) {
        check_attr(cls, "", ""); // throws: it knows what to say
    }
    check_name("object", name, kMaxChannelName);
    return cls + '\0' + name;
}

void append_text(std::string& out, const std::string& text) {
    const auto length = static_cast<Length>(text.size());
    char bytes[sizeof length];
    std::memcpy(bytes, &length, sizeof length);
    out.append(bytes, sizeof bytes).append(text);
}

std::string encode(const Attributes& attrs) {
    std::string value;
    for (const auto& [name, text] : attrs) {
        append_text(value, name);
        append_text(value, text);
    }
    return value;
}

std::string take_text(std::string_view& from) {
    Length length = 0;
    if (from.size() >= sizeof length) {
        std::memcpy(&length, from.data(), sizeof length);
        from.remove_prefix(sizeof length);
        if (length <= from.size()) {
            std::string text(from.substr(0, length));
            from.remove_prefix(length);
            return text;
        }
    }
    throw Error(Errc::kDamaged, "an object's record is damaged: delete the object and define it again");
}

Attributes decode(std::string_view value) {
    Attributes attrs;
    while (!value.empty()) {
        std::string name = take_text(value);
        attrs[std::move(name)] = take_text(value);
    }
    return attrs;
}

void check_all(const std::string& cls, const Attributes& attrs) {
    for (const auto& [name, text] : attrs) {
        check_attr(cls, name, text);
    }
}

[[noreturn]] void missing(const std::string& cls, const std::string& name) {
    throw Error(Errc::kNotFound, "there is no " + cls + " object '" + name + "': define it first");
}

void change_usage(WriteTxn& write, std::size_t before, std::size_t after) {
    const std::uint64_t usage = load_usage(write.txn(), write.env()) + after;
    save_usage(write, usage - std::min<std::uint64_t>(usage, before));
}

} // namespace

// Objects may always be written, the quota notwithstanding: a channel's status has to be told when the store is full.

void LmdbStore::object_add(const std::string& cls, const std::string& name, const Attributes& attrs) {
    const std::string key = object_key(cls, name);
    check_all(cls, attrs);
    write(Need::kMust, [&](WriteTxn& write) {
        if (table_get(write.txn(), env_.objects, key, env_)) {
            throw Error(Errc::kExists, "the " + cls + " object '" + name + "' exists already");
        }
        const std::string value = encode(attrs);
        table_put(write, env_.objects, key, value);
        change_usage(write, 0, key.size() + value.size());
    });
}

Attributes LmdbStore::object_get(const std::string& cls, const std::string& name) {
    const std::string key = object_key(cls, name);
    Reader reader(env_);
    const ReadScope scope(reader);
    const auto value = table_get(reader.txn(), env_.objects, key, env_);
    if (!value) {
        missing(cls, name);
    }
    return decode(*value);
}

void LmdbStore::object_set(const std::string& cls, const std::string& name, const Attributes& attrs) {
    const std::string key = object_key(cls, name);
    check_all(cls, attrs);
    write(Need::kMust, [&](WriteTxn& write) {
        const auto old = table_get(write.txn(), env_.objects, key, env_);
        if (!old) {
            missing(cls, name);
        }
        const std::size_t before = old->size();
        Attributes merged = decode(*old);
        for (const auto& [attr, text] : attrs) {
            merged[attr] = text;
        }
        const std::string value = encode(merged);
        table_put(write, env_.objects, key, value);
        change_usage(write, before, value.size());
    });
}

void LmdbStore::object_delete(const std::string& cls, const std::string& name) {
    const std::string key = object_key(cls, name);
    write(Need::kMust, [&](WriteTxn& write) {
        const auto old = table_get(write.txn(), env_.objects, key, env_);
        if (!old) {
            missing(cls, name);
        }
        const std::size_t before = key.size() + old->size();
        table_erase(write, env_.objects, key);
        change_usage(write, before, 0);
    });
}

std::vector<std::string> LmdbStore::object_names(const std::string& cls) {
    const std::string prefix = object_key(cls, "A").substr(0, cls.size() + 1);
    std::vector<std::string> names;
    Reader reader(env_);
    const ReadScope scope(reader);
    Cursor cursor(reader.txn(), env_.objects, env_);
    MDB_val key = to_val(prefix);
    MDB_val value{};
    for (bool found = cursor.get(key, value, MDB_SET_RANGE); found; found = cursor.get(key, value, MDB_NEXT)) {
        const std::string_view text = to_view(key);
        if (!text.starts_with(prefix)) {
            break;
        }
        names.emplace_back(text.substr(prefix.size()));
    }
    return names;
}

} // namespace kvr
