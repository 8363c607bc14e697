// SPDX-License-Identifier: MIT
#include "support/heap_watch.h"

#include <cstddef>

namespace kvr::test {
void (*heap_used)() = nullptr;
} // namespace kvr::test

extern "C" void __sanitizer_malloc_hook(const volatile void* block, std::size_t /*size*/) {
    if (block != nullptr && kvr::test::heap_used != nullptr) {
        kvr::test::heap_used();
    }
}

extern "C" void __sanitizer_free_hook(const volatile void* block) {
    __sanitizer_malloc_hook(block, 0);
}
