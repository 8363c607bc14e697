// SPDX-License-Identifier: MIT
#include "incoming_message.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "wire_fields.h"

namespace kvr {

IncomingMessage::IncomingMessage(const Line& line, ListenerContext& context) : line_(line), context_(context) {
    if (context_.journal.enabled()) {
        digest_ = std::make_unique<Sha256>();
    }
    if (context_.options.take_once > 0) {
        identity_ = std::make_unique<IdentityDigest>(context_.options.store->seed());
    }
}

void IncomingMessage::begin(const WireMessage& message) {
    message_ = {};
    message_.connection = line_.id;
    message_.peer = line_.host();
    message_.queue = message.queue;
    message_.descriptor = message.descriptor;
    if (!context_.delivery.has_home(message_.queue)) {
        drop_reason_ = "no such queue and no dead-letter queue (DEADQ of the queue manager): define one of them";
    }
    is_file_ = message.is_file();
    body_length_ = message.body.size();
    if (digest_) {
        digest_->add(message.body);
        body_digest_ = digest_->finish();
    }
    if (identity_) {
        identity_->begin(line_.channel, message);
    }
    files_.clear();
    facts_.clear();
    if (keeps() && !is_file_) {
        message_.data.assign(message.body.begin(), message.body.end());
    }
    const auto expect_file = [this](std::string_view name) {
        facts_.push_back({std::string(name), {}, 0, {}});
        if (keeps()) {
            files_.emplace_back(*context_.spool, std::string(name));
        }
    };
    std::for_each(message.attachments.begin(), message.attachments.end(), expect_file);
    if (is_file_) {
        expect_file(message.file_name);
    }
    kept_ = kept_memory();
}

std::size_t IncomingMessage::kept_memory() const {
    std::size_t size =
        message_.data.capacity() + files_.capacity() * sizeof(IncomingFile) + facts_.capacity() * sizeof(FileFacts);
    for (const FileFacts& file : facts_) {
        size += 2 * file.name.capacity(); // the file that is coming in has it as well
    }
    return size;
}

void IncomingMessage::begin_file(std::size_t index, std::uint64_t length) {
    facts_[index].length = length;
    if (identity_) {
        identity_->begin_file(length);
    }
    current_file_ = index;
}

bool IncomingMessage::take_file_bytes(std::span<const char>& bytes) {
    const std::span<const char> offered = bytes;
    IncomingFile* failed = nullptr;
    if (!keeps() || context_.files_given_up) {
        bytes = {};
    } else if (current_file_ > 0 && !files_[current_file_ - 1].finish()) {
        failed = &files_[current_file_ - 1]; // one open file at a time
    } else if (!files_[current_file_].write(bytes)) {
        failed = &files_[current_file_];
    }
    if (failed != nullptr && !judge_trouble(*failed)) {
        failed = nullptr;
        bytes = {};
    }
    spooled_ += keeps() ? offered.size() - bytes.size() : 0;
    const std::span<const char> taken = offered.first(offered.size() - bytes.size());
    if (digest_) {
        digest_->add(taken);
    }
    if (identity_) {
        identity_->add_file_bytes(taken);
    }
    no_room_ = no_room_ && failed != nullptr;
    return failed == nullptr;
}

void IncomingMessage::end_file() {
    if (digest_) {
        facts_[current_file_].digest = digest_->finish();
    }
    if (keeps() && !context_.files_given_up) {
        (void)files_[current_file_].finish(); // when it fails, the next file or complete() tries it again
    }
}

/// Says what is wrong. Whether it can be tried again; if not, the message is passed over.
bool IncomingMessage::judge_trouble(const IncomingFile& file) {
    const std::string trouble = file.trouble();
    if (!file.retry_helps()) {
        drop_reason_ = "a file of it cannot be stored " + trouble;
        drop_files();
        spooled_ = 0;
        return false;
    }
    if (file_trouble_ != trouble) {
        line_.log(fmt::format("cannot store a file {}, reading stops until it works", trouble), "files not stored");
    }
    file_trouble_ = trouble;
    no_room_ = file.no_room();
    return true;
}

bool IncomingMessage::complete() {
    if (context_.files_given_up && !files_.empty()) {
        message_.lost = true;
        drop_files();
    } else if (!publish_files()) {
        return false;
    }
    hand_over();
    return true;
}

/// False: one of them waits until it can be stored (complete_waits_).
bool IncomingMessage::publish_files() {
    for (std::size_t i = message_.files.size(); i < files_.size(); ++i) {
        std::string path = files_[i].finish() ? files_[i].publish() : std::string();
        complete_waits_ = path.empty() && judge_trouble(files_[i]);
        if (path.empty() && !complete_waits_) {
            break; // it is passed over
        }
        if (path.empty()) {
            return false;
        }
        facts_[i].path = path;
        message_.files.push_back(std::move(path));
    }
    std::vector<IncomingFile>().swap(files_);
    if (!file_trouble_.empty() && !message_.files.empty()) {
        file_trouble_.clear();
        no_room_ = false;
        line_.log("files can be stored again", "files stored again");
    }
    message_.attachments = message_.files;
    if (is_file_ && !message_.files.empty()) {
        message_.data.assign(message_.files.back().begin(), message_.files.back().end());
        message_.attachments.pop_back();
    }
    return true;
}

void IncomingMessage::hand_over() {
    complete_waits_ = false;
    kept_ = 0;
    spooled_ = 0;
    ++count_;
    if (context_.journal.enabled()) {
        message_.journal = facts();
    }
    if (identity_) {
        message_.identity = identity_->finish();
    }
    std::vector<FileFacts>().swap(facts_);
    if (drop_reason_.empty()) {
        context_.delivery.add(std::exchange(message_, {}));
    } else {
        context_.delivery.drop(std::exchange(message_, {}), std::exchange(drop_reason_, {}));
    }
}

void IncomingMessage::abandon(bool tell) {
    drop_files();
    if (complete_waits_ && tell) {
        message_.lost = true;
        hand_over();
    }
}

/// Those of a message that is not handed over.
void IncomingMessage::drop_files() {
    std::vector<IncomingFile>().swap(files_);
    for (const std::string& file : message_.files) {
        context_.spool->remove(file);
    }
    message_.files.clear();
}

/// Members of its line in the journal.
std::string IncomingMessage::facts() const {
    std::string text = fmt::format(
        R"("seq":{},"channel":"{}","queue":"{}","msgid":"{}","type":{},"code":{},"flags":{},"file_message":{},)"
        R"("length":{},"sha256":"{}","files":[)",
        count_, line_.channel, escaped(message_.queue), escaped_field(message_.descriptor.sMsgId),
        message_.descriptor.iMsgType, message_.descriptor.iMsgCode, message_.descriptor.iMsgFlags, is_file_,
        body_length_, body_digest_);
    for (const FileFacts& file : facts_) {
        text += fmt::format(R"({}{{"name":"{}","path":"{}","length":{},"sha256":"{}"}})", text.back() == '[' ? "" : ",",
                            escaped(file.name), escaped(file.path), file.length, file.digest);
    }
    return text + "]";
}

} // namespace kvr
