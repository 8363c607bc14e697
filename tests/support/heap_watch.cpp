// SPDX-License-Identifier: MIT
#include "support/heap_watch.h"

#include <cstddef>

namespace kvr::test {
void (*heap_used)() = nullptr;
} // namespace kvr::test

static void tell(const volatile void* block) {
    if (block != nullptr && kvr::test::heap_used != nullptr) {
        kvr::test::heap_used();
    }
}

extern "C" {
#ifdef __SANITIZE_ADDRESS__
void __sanitizer_malloc_hook(const volatile void* block, std::size_t /*size*/) {
    tell(block);
}
void __sanitizer_free_hook(const volatile void* block) {
    tell(block);
}
#else
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t size) {
    tell(&size);
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    tell(&size);
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    tell(&size);
    return __libc_realloc(block, size);
}
void free(void* block) {
    tell(block);
    __libc_free(block);
}
#endif
}
