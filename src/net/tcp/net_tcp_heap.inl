// SPDX-License-Identifier: MIT
// Private to net_tcp_common.cpp: memory for OpenSSL during a write.
//
// SSL_write allocates and frees a few small blocks for every record (seen with OpenSSL 3.0: 40 bytes each). A heartbeat
// is written in a signal handler, which may have interrupted malloc. So while this library writes, small blocks come
// from a fixed pool. OpenSSL takes other memory functions only before its first allocation, hence the constructor; in a
// process that used OpenSSL before this library was loaded it keeps the heap. The library stays loaded once it is
// (nodelete).

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

namespace {

constexpr size_t POOL_BLOCK_LEN = 64;
constexpr int POOL_BLOCKS = 64; ///< a record needs three at a time; a handler can interrupt a write

struct T_POOL_BLOCK {
    alignas(std::max_align_t) char sData[POOL_BLOCK_LEN];
};

T_POOL_BLOCK f_tPool[POOL_BLOCKS];
std::atomic<char> f_cPoolUsed[POOL_BLOCKS];
/// Writes that this thread is in the middle of. Static thread storage: reached without allocation.
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t f_iWriting = 0;

/// The block's number, or -1 for memory from the heap.
int PoolIndex(const void* pBlock) {
    const auto* ptBlock = static_cast<const T_POOL_BLOCK*>(pBlock);
    return ptBlock >= f_tPool && ptBlock < f_tPool + POOL_BLOCKS ? static_cast<int>(ptBlock - f_tPool) : -1;
}

void* SslMalloc(size_t iLen, const char*, int) {
    if (iLen == 0) {
        return nullptr;
    }
    if (f_iWriting != 0 && iLen <= POOL_BLOCK_LEN) {
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
