// SPDX-License-Identifier: MIT
// The channel plug-in: the sending end of a message channel, one channel per process.
//
// One translation unit, because all of the channel's state and functions have internal linkage. Each fragment below is
// one concern; README.md in this folder says which is which and what a signal handler may touch.
#include "plug_kavro_chls.h"

#include "chls_state.inl"

#include "chls_bind.inl"
#include "chls_client.inl"
#include "chls_connect.inl"
#include "chls_event.inl"
#include "chls_frame.inl"
#include "chls_heartbeat.inl"
#include "chls_net_start.inl"
#include "chls_route.inl"
#include "chls_run.inl"
#include "chls_segment.inl"
#include "chls_send_data.inl"
#include "chls_send_file.inl"
#include "chls_start.inl"
#include "chls_status.inl"
#include "chls_stop.inl"
#include "chls_text.inl"
#include "chls_tls.inl"
#include "chls_watcher.inl"
