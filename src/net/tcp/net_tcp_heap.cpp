// SPDX-License-Identifier: MIT
// Memory for OpenSSL during a write.
//
// SSL_write allocates and frees small blocks for every record (seen with OpenSSL 3.0: up to 36 of up to 216 bytes where
// a digest is made beside the cipher, 17 at a time). A heartbeat is written in a signal handler, which may have
// interrupted malloc. So while this library writes, small blocks come from a fixed pool. OpenSSL takes other memory
// functions only before its first allocation, hence the constructor; in a process that used OpenSSL before this library
// was loaded it keeps the heap. The library stays loaded once it is (nodelete).
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>
#include <pthread.h>

#include "net_tcp_private.h"

namespace {

constexpr size_t POOL_BLOCK_LEN = 256;
constexpr int POOL_BLOCKS = 64; ///< a handler can interrupt a write

struct T_POOL_BLOCK {
    alignas(std::max_align_t) char sData[POOL_BLOCK_LEN];
};

T_POOL_BLOCK f_tPool[POOL_BLOCKS];
std::atomic<char> f_cPoolUsed[POOL_BLOCKS];
std::atomic<pthread_t> f_tWriter; ///< the thread that is in the middle of a write; 0: none

/// The block's number, or -1 for memory from the heap.
int PoolIndex(const void* pBlock) {
    const auto* ptBlock = static_cast<const T_POOL_BLOCK*>(pBlock);
    return ptBlock >= f_tPool && ptBlock < f_tPool + POOL_BLOCKS ? static_cast<int>(ptBlock - f_tPool) : -1;
}

void* SslMalloc(size_t iLen, const char*, int) {
    if (iLen == 0) {
        return nullptr;
    }
    if (iLen <= POOL_BLOCK_LEN && f_tWriter == pthread_self()) {
        for (int i = 0; i < POOL_BLOCKS; i++) {
            if (f_cPoolUsed[i].exchange(1) == 0) {
                return &f_tPool[i];
            }
        }
    }
    return malloc(iLen);
}

void SslFree(void* pBlock, const char*, int) {
    const int iIndex = PoolIndex(pBlock);
    if (iIndex >= 0) {
        f_cPoolUsed[iIndex] = 0;
    } else {
        free(pBlock);
    }
}

void* SslRealloc(void* pBlock, size_t iLen, const char* psFile, int iLine) {
    if (pBlock == nullptr) {
        return SslMalloc(iLen, psFile, iLine);
    }
    if (iLen == 0) {
        SslFree(pBlock, psFile, iLine);
        return nullptr;
    }
    if (PoolIndex(pBlock) < 0) {
        return realloc(pBlock, iLen);
    }
    if (iLen <= POOL_BLOCK_LEN) {
        return pBlock;
    }
    void* pNew = malloc(iLen);
    if (pNew != nullptr) {
        memcpy(pNew, pBlock, POOL_BLOCK_LEN);
        SslFree(pBlock, psFile, iLine);
    }
    return pNew;
}

[[gnu::constructor]] void UsePool() {
    CRYPTO_set_mem_functions(SslMalloc, SslRealloc, SslFree);
}

} // namespace

bool BeginPool() {
    pthread_t tNone{};
    return f_tWriter.compare_exchange_strong(tNone, pthread_self());
}

void EndPool(bool bOwner) {
    if (bOwner) {
        f_tWriter = pthread_t{};
    }
}
