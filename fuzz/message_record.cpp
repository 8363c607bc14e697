// SPDX-License-Identifier: MIT
// Any bytes as a message record of the store: refused as damaged, or views that lie inside them.
#include <vector>

#include "require.h"
#include "store/message_record.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<char> record(data, data + size);
    const auto inside = [&record](const char* bytes, std::size_t length) {
        return length == 0 || (bytes >= record.data() && bytes + length <= record.data() + record.size());
    };
    (void)kvr::data_bytes({record.data(), record.size()});
    try {
        const kvr::MessageView view = kvr::decode_message(record);
        require(inside(view.descriptor, kvr::kDescriptorSize) && inside(view.data.data(), view.data.size()));
        require(view.attachment_count <= static_cast<std::uint32_t>(KVR_ACC_MAX));
        std::string_view list = view.attachments;
        for (std::uint32_t i = 0; i < view.attachment_count; ++i) {
            const std::string_view path = kvr::next_attachment(list);
            require(path.size() <= kvr::kMaxAttachmentPath && inside(path.data(), path.size()));
        }
        require(list.empty());
        require(kvr::data_bytes({record.data(), record.size()}) == view.data.size());
    } catch (const kvr::Error& error) {
        require(error.code() == kvr::Errc::kDamaged);
    }
    return 0;
}
