// SPDX-License-Identifier: MIT
// What a message carries and what it refuses.
#include "bindings/program_fixture.h"

namespace kvr::test {
namespace {

using Messages = BindingsTest;

TEST_F(Messages, ArriveAsTheyWerePut) {
    const std::string id(32, '\xff');
    Message sent(std::string_view("da\0ta", 5));
    sent.set(KVR_MESSAGE_ID, id);
    sent.set(KVR_CORRELATION_ID, std::string_view("\0c", 2));
    sent.set(KVR_FORMAT, "12345678");
    for (int field = KVR_TYPE; field <= KVR_APPLICATION_TYPE; ++field) {
        sent.set_number(static_cast<kvr_field>(field), -field);
    }
    sent.destination("ORDERS", std::string(32, 'M'));
    sent.attach("/one");
    sent.attach("/" + std::string(KVR_MAX_PATH - 1, 'x'));
    qm_.put("Q", sent);
    Message got("what was there");
    ASSERT_EQ(qm_.get("Q", got), Got::kMessage);
    EXPECT_EQ(std::tuple(got.data(), got.id(), got.correlation_id()),
              std::tuple(std::string_view("da\0ta", 5), id, std::string_view("\0c", 2)));
    for (int field = KVR_MESSAGE_ID; field <= KVR_APPLICATION_TYPE; ++field) {
        const auto name = static_cast<kvr_field>(field);
        EXPECT_EQ(std::tuple(got.get(name), got.number(name)),
                  std::tuple(sent.get(name), field < KVR_TYPE ? 0 : -field));
    }
    EXPECT_EQ(std::tuple(got.destination_queue(), got.destination_qmgr()), std::tuple("ORDERS", std::string(32, 'M')));
    EXPECT_EQ(got.attachments(), sent.attachments());
    EXPECT_TRUE(got.file().empty());
    sent.file("/a file");
    qm_.put("Q", sent);
    ASSERT_EQ(qm_.get("Q", got), Got::kMessage);
    EXPECT_EQ(got.file(), "/a file");
    got.destination("");
    EXPECT_EQ(got.data(), "/a file");
    got.clear();
    EXPECT_EQ(std::tuple(got.data(), got.id(), got.number(KVR_TYPE), got.attachments().size(), got.place()),
              std::tuple("", "", 0, 0, 0));
}

TEST_F(Messages, AreFilledByEachPutButForWhatWasSet) {
    Message message;
    message.set(KVR_APPLICATION, "mine");
    qm_.put("Q", message);
    const std::string first(message.id());
    EXPECT_EQ(first.size(), 32U);
    EXPECT_EQ(message.get(KVR_PUT_DATE).size() + message.get(KVR_PUT_TIME).size(), 14U);
    qm_.put("Q", {&message, &message});
    EXPECT_NE(message.id(), first);
    EXPECT_EQ(message.get(KVR_APPLICATION), "mine");
    std::set<std::string> ids;
    for (Message got; qm_.get("Q", got) == Got::kMessage;) {
        ids.emplace(got.id());
    }
    EXPECT_EQ(ids.size(), 3U);
    message.set(KVR_MESSAGE_ID, "own");
    qm_.put("Q", message);
    qm_.put("Q", message);
    EXPECT_EQ(message.id(), "own");
}

TEST_F(Messages, RefuseWhatDoesNotFit) {
    const std::string largest(KVR_MAX_MESSAGE, 'x');
    const std::string long_path = "/" + std::string(KVR_MAX_FILE_PATH, 'x');
    const std::tuple<int, const char*, std::function<void(Message&)>> cases[] = {
        {KVR_OK, "", [&](Message& to) { to.data(largest); }},
        {KVR_E_TOO_LARGE, "2098377", [&](Message& to) { to.data(largest + "x"); }},
        {KVR_E_TOO_LARGE, "as a file", [&](Message& to) { to.data(largest), to.destination("Q"); }},
        {KVR_E_TOO_LARGE, "as a file", [&](Message& to) { to.destination("Q"), to.data(largest); }},
        {KVR_E_TOO_LARGE, "30 files",
         [](Message& to) {
             for (;; to.attach("/file")) {
             }
         }},
        {KVR_E_TOO_LONG, "511", [&](Message& to) { to.attach(long_path.substr(0, KVR_MAX_PATH + 1)); }},
        {KVR_OK, "", [&](Message& to) { to.file(long_path.substr(0, KVR_MAX_FILE_PATH)); }},
        {KVR_E_TOO_LONG, "1023", [&](Message& to) { to.file(long_path); }},
        {KVR_E_INVALID, "full path", [](Message& to) { to.attach("file"); }},
        {KVR_E_TOO_LONG, "32", [](Message& to) { to.set(KVR_GROUP_ID, std::string(33, 'x')); }},
        {KVR_E_TOO_LONG, "reply queue has 33", [](Message& to) { to.set(KVR_REPLY_QUEUE, std::string(33, 'x')); }},
        {KVR_E_INVALID, "8 digits", [](Message& to) { to.set(KVR_PUT_DATE, "2026-1-1"); }},
        {KVR_E_INVALID, "NUL", [](Message& to) { to.set(KVR_FORMAT, std::string_view("a\0b", 3)); }},
        {KVR_E_INVALID, "field", [](Message& to) { to.set_number(KVR_FORMAT, 1); }},
        {KVR_E_INVALID, "field", [](Message& to) { to.set(KVR_TYPE, "1"); }},
        {KVR_E_TOO_LONG, "destination queue", [](Message& to) { to.destination(std::string(33, 'Q')); }},
        {KVR_E_INVALID, "letters", [](Message& to) { to.destination("Q", "no name"); }},
        {KVR_E_INVALID, "queue", [](Message& to) { to.destination("", "M"); }},
    };
    for (const auto& [code, text, change] : cases) {
        Message message("as it was");
        EXPECT_EQ(code_of([&] { return change(message), 0; }), code) << text;
        EXPECT_THAT(code == KVR_OK ? "" : kvr_error(), testing::HasSubstr(text));
    }
}

} // namespace
} // namespace kvr::test
