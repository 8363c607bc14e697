// SPDX-License-Identifier: MIT
// The version record of the channel plug-in, found in a library file by its marker and at run time by its getter.

namespace {

char f_sKAVROVerInfo[256] =
    "^__VERSION_ID__^=Version[KAVRO_v" KVR_VERSION "_release] Id[$Rev: 152 $] Build[Apr 15 2014]";

}

/// The 256-byte record: the text, filled with NULs. The same address on every call.
extern "C" __attribute__((visibility("default"))) char* _plug_kavro_chls_Get_Ver() {
    return f_sKAVROVerInfo;
}
