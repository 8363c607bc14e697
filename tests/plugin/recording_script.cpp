// SPDX-License-Identifier: MIT
// What a case scripts: hooks, messages, results of the get; and what it may ask of its own process.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "recording_host.h"

namespace kvr::test {

Hook failing(int result, int from, int to, int err) {
    return [=](const Call& c) -> std::optional<int> {
        if (c.n < from || c.n > to) {
            return {};
        }
        errno = err;
        return result;
    };
}

Hook raising(int sig, int in_call) {
    return [=](const Call& c) -> std::optional<int> {
        if (in_call == 0 || c.n == in_call) {
            raise(sig);
        }
        return {};
    };
}

Hook failing_write(long len, int times, int result, int err) {
    return [=, left = times](const Call& c) mutable -> std::optional<int> {
        if (c.a != len || left-- <= 0) {
            return {};
        }
        errno = err;
        return result;
    };
}

Message message(const std::string& body, const std::string& dest) {
    Message msg;
    T_KAVRO_HDR_XMITQ hdr{};
    std::copy_n("XTMH", 4, hdr.sStrucId);
    hdr.iVersion = 1;
    memcpy(hdr.sDestQ, dest.data(), dest.size());
    std::copy_n("QM2", 3, hdr.sDestQMgr);
    msg.data.assign(reinterpret_cast<const char*>(&hdr), sizeof hdr);
    msg.data += body;
    msg.md.cMsgStoreType = KVR_STORE_DATA;
    msg.md.iMsgType = 1;
    return msg;
}

Message file_message(const std::string& path) {
    Message msg = message(path);
    msg.md.cMsgStoreType = KVR_STORE_FILE;
    return msg;
}

GetStep deliver(const Message& msg) {
    return [msg](T_KAVRO_MD* md, char* buf, int* len) {
        auto* list = static_cast<T_KAVRO_ACCESSORIES_MD*>(md->pOptData);
        *md = msg.md;
        std::copy_n("MD  ", 4, md->sStrucId);
        md->iVersion = 2;
        md->pOptData = msg.null_list ? nullptr : list;
        list->iNum = msg.file_count.value_or(static_cast<int>(msg.files.size()));
        for (size_t i = 0; i < msg.files.size(); ++i) {
            strcpy(list->sFiles[i], msg.files[i].c_str());
        }
        std::copy(msg.data.begin(), msg.data.end(), buf);
        *len = static_cast<int>(msg.data.size());
        host().in_hand = msg;
        host().in_hand.md = *md;
        return host().success;
    };
}

GetStep interrupted(int sig) {
    return [sig](T_KAVRO_MD*, char*, int*) {
        raise(sig);
        errno = EINTR;
        return -4;
    };
}

GetStep get_fails(int result) {
    return [result](T_KAVRO_MD*, char*, int*) { return result; };
}

GetStep idle() {
    return [](T_KAVRO_MD*, char*, int*) {
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, &before);
        trace(kNote, "idle");
        sigsuspend(&before);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        return -4;
    };
}

GetStep finally(std::function<void()> what) {
    return [what = std::move(what)](T_KAVRO_MD*, char*, int*) -> int {
        what();
        _exit(kScriptOver);
    };
}

bool wait_readable() {
    pollfd waited{host().sock, POLLIN, 0};
    return poll(&waited, 1, 10000) == 1;
}

} // namespace kvr::test
