// SPDX-License-Identifier: MIT
// The object operations of the host over the store. No exception leaves: each becomes its negative number, and its text
// a line of the log.
#include "kavro_object.h"

#include <array>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <string>

#include "kavro_log/log_secret.h"
#include "kavro_object/kavro_object_host.h"
#include "kavutil/export.h"
#include "kavutil/service.h"
#include "kavutil/stop_point.h"
#include "store/c_border.h"
#include "store/db_handle.h"
#include "store/schema.h"
#include "store/store.h"

namespace kvr {

namespace {

/// Attributes of one call: more than any class has.
constexpr int kMaxCount = 32;
constexpr BorderModule kSelf{"$kavro_object", "kavro_object"};

StatusHook g_status_hook = nullptr;

void tell_hook(const std::string& state, const Attributes& status) {
    if (!state.empty() && g_status_hook != nullptr) {
        g_status_hook(status);
    }
}

/// What this process goes by of its channel's definition: each attribute as it was when the channel read it, at its
/// start or when it began to connect. Operators change the definition meanwhile.
Attributes& taken() {
    static Attributes last;
    return last;
}

/// Those that the status object has room for.
void remember_taken(const Attributes& definition, int count, char** attrs) {
    const ClassSpec& status = *find_class("CHS");
    for (int i = 0; i < count; ++i) {
        if (find_attr(status, attrs[i]) != nullptr) {
            const auto value = definition.find(attrs[i]);
            taken()[attrs[i]] = value == definition.end() ? "" : value->second;
        }
    }
}

/// What the host adds to the status of a channel that is not stopped, for operators.
void add_own_status(const char* cls, Attributes& given) {
    if (std::strcmp(cls, "CHS") == 0 && given.contains("STATUS") && given["STATUS"] != "STOPED") {
        given.merge(Attributes(taken()));
        given["FAILURE"] = "";
    }
}

void check_arguments(const char* cls, const char* name, int count, char** attrs, char** values) {
    if (cls == nullptr || name == nullptr || count < 0 || count > kMaxCount ||
        (count > 0 && (attrs == nullptr || values == nullptr))) {
        throw Error(Errc::kInvalid,
                    "an object operation needs a class, a name and up to " + std::to_string(kMaxCount) + " attributes");
    }
    for (int i = 0; i < count; ++i) {
        if (attrs[i] == nullptr || values[i] == nullptr) {
            throw Error(Errc::kInvalid, "an attribute of an object operation is a null pointer");
        }
    }
}

Attributes to_attributes(int count, char** attrs, char** values) {
    Attributes all;
    for (int i = 0; i < count; ++i) {
        all[attrs[i]] = values[i];
    }
    return all;
}

void get_attributes(const void* handle, const char* cls, const char* name, int count, char** attrs, char** buffers) {
    stop_point(StopPlace::kMidMessage);
    check_arguments(cls, name, count, attrs, buffers);
    const Attributes values = store_of(handle)->object_get(cls, name);
    for (int i = 0; i < count; ++i) {
        const auto value = values.find(attrs[i]);
        const std::string_view text = value == values.end() ? std::string_view() : std::string_view(value->second);
        check_attr(cls, attrs[i], text); // known, and no longer than the reader's buffer: nobody tells us its size
    }
    if (std::strcmp(cls, "CHL") == 0) {
        remember_taken(values, count, attrs);
    }
    for (int i = 0; i < count; ++i) {
        if (const auto value = values.find(attrs[i]); value != values.end()) {
            if (find_attr(*find_class(cls), attrs[i])->kind == AttrKind::kSecret) {
                kvr_log_add_secret(value->second.c_str()); // before the reader can print it
            }
            std::memcpy(buffers[i], value->second.c_str(), value->second.size() + 1);
        }
    }
}

void log_line_up(const char* channel, Attributes& status) {
    constexpr int kLevelEvent = 3;
    // The log takes pointers to char and writes through none of them.
    KVR_LogPrint(nullptr, kLevelEvent, const_cast<char*>(kSelf.module), const_cast<char*>(kSelf.file), __LINE__,
                 "KVR_ObjSetAttr", const_cast<char*>("channel[%s] line up, local[%s:%s] remote[%s:%s]"), channel,
                 status["LOCALIP"].c_str(), status["LOCALPORT"].c_str(), status["REMOTEIP"].c_str(),
                 status["REMOTEPORT"].c_str());
}

/// For whoever looks at the service: the state, and with whom.
void show_state(const std::string& state, Attributes& status) {
    const std::string with = state == "RUNING"     ? ", sends to " + status["REMOTEIP"] + ":" + status["REMOTEPORT"]
                             : state == "RETRYING" ? ", tries " + status["CONNAME"]
                                                   : "";
    tell_service_manager(("STATUS=" + state + with).c_str());
}

void set_attributes(const void* handle, const char* cls, const char* name, int count, char** attrs, char** values) {
    stop_point(StopPlace::kMidMessage);
    check_arguments(cls, name, count, attrs, values);
    Attributes given = to_attributes(count, attrs, values);
    const std::string state = std::strcmp(cls, "CHS") == 0 && given.contains("STATUS") ? given["STATUS"] : "";
    add_own_status(cls, given);
    const bool up = state == "RUNING";
    if (!up) {
        tell_hook(state, given); // a loss is one, whether the status can be written or not
    }
    store_of(handle)->object_set(cls, name, given);
    if (!state.empty()) {
        show_state(state, given);
    }
    if (up && given.contains("REMOTEIP")) {
        log_line_up(name, given);
    }
    if (up) {
        tell_hook(state, given);
    }
}

void add_object(const void* handle, const char* cls, const char* name, int count, char** attrs, char** values) {
    stop_point(StopPlace::kMidMessage);
    check_arguments(cls, name, count, attrs, values);
    Attributes given = to_attributes(count, attrs, values);
    add_own_status(cls, given);
    store_of(handle)->object_add(cls, name, given);
}

using Operation = void (*)(const void*, const char*, const char*, int, char**, char**);

int run(Operation operation, const void* handle, const char* cls, const char* name, int count, char** attrs,
        char** values, const BorderPlace& place) {
    try {
        operation(handle, cls, name, count, attrs, values);
        return 0;
    } catch (const std::exception& error) {
        // A status object that is not there yet is no fault.
        const auto* known = dynamic_cast<const Error*>(&error);
        const bool missing = known != nullptr && known->code() == Errc::kNotFound;
        return fail_at_border(kSelf, error, place, missing ? kBorderLevelDebug : kBorderLevelError);
    }
}

/// For the forms that take first all names and then all values.
int run_list(Operation operation, const void* handle, const char* cls, const char* name, int count, va_list arguments,
             const BorderPlace& place) {
    std::array<char*, kMaxCount> attrs{};
    std::array<char*, kMaxCount> values{};
    if (count >= 0 && count <= kMaxCount) { // any other count is refused before a name is read
        for (int i = 0; i < count; ++i) {
            attrs.at(static_cast<std::size_t>(i)) = va_arg(arguments, char*);
        }
        for (int i = 0; i < count; ++i) {
            values.at(static_cast<std::size_t>(i)) = va_arg(arguments, char*);
        }
    }
    return run(operation, handle, cls, name, count, attrs.data(), values.data(), place);
}

} // namespace

void object_set_status_hook(StatusHook hook) {
    g_status_hook = hook;
}

} // namespace kvr

extern "C" KVR_EXPORT int KVR_ObjAdd(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs,
                                     char** ppsVals, int /*iFlags*/) {
    return kvr::run(kvr::add_object, hObjDB, psClass, psName, iCnt, ppsAttrs, ppsVals, kvr::BorderPlace::here());
}

extern "C" KVR_EXPORT int KVR_ObjGetAttr(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt,
                                         char** ppsAttrs, char** ppsBufs) {
    return kvr::run(kvr::get_attributes, hObjDB, psClass, psName, iCnt, ppsAttrs, ppsBufs, kvr::BorderPlace::here());
}

extern "C" KVR_EXPORT int KVR_ObjGetAttrV(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt, ...) {
    va_list arguments;
    va_start(arguments, iCnt);
    const int result =
        kvr::run_list(kvr::get_attributes, hObjDB, psClass, psName, iCnt, arguments, kvr::BorderPlace::here());
    va_end(arguments);
    return result;
}

extern "C" KVR_EXPORT int KVR_ObjSetAttr(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt,
                                         char** ppsAttrs, char** ppsVals) {
    return kvr::run(kvr::set_attributes, hObjDB, psClass, psName, iCnt, ppsAttrs, ppsVals, kvr::BorderPlace::here());
}

extern "C" KVR_EXPORT int KVR_ObjSetAttrV(T_KVR_OBJ_DB_HANDLE hObjDB, char* psClass, char* psName, int iCnt, ...) {
    va_list arguments;
    va_start(arguments, iCnt);
    const int result =
        kvr::run_list(kvr::set_attributes, hObjDB, psClass, psName, iCnt, arguments, kvr::BorderPlace::here());
    va_end(arguments);
    return result;
}
