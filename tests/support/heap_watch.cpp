// SPDX-License-Identifier: MIT
#include "support/heap_watch.h"

#include <cstddef>

namespace kvr::test {
void (*heap_used)() = nullptr;
} // namespace kvr::test

#define KVR_HOOK extern "C" __attribute__((visibility("default"))) void

KVR_HOOK __sanitizer_malloc_hook(const volatile void* block, std::size_t /*size*/) {
    if (block != nullptr && kvr::test::heap_used != nullptr) {
        kvr::test::heap_used();
    }
}

KVR_HOOK __sanitizer_free_hook(const volatile void* block) {
    __sanitizer_malloc_hook(block, 0);
}
