// SPDX-License-Identifier: MIT
// An engine that was built with another version of the store.
#include "store/engine.h"

extern "C" const kvr::StoreEngine* kavro_store_engine() {
    static constexpr kvr::StoreEngine kEngine{"0.0.0", nullptr, nullptr, nullptr, nullptr};
    return &kEngine;
}
