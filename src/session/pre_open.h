// Internal hooks of the pre-open thread shared with the base and the front end.
#pragma once

#include <cstdint>

struct mp4_session;

namespace mp4rec {

// Forgets a request that a previous pre-open thread left unserved; called by
// mp4_base_new before it starts a new thread, which counts as running from
// then on unless pre_open_thread_not_started() says otherwise.
void pre_open_reset_request();
void pre_open_thread_not_started();

// Waits until `done()` holds, looking again whenever the thread is ready,
// parks a file or ends; false when `deadline_ms` (monotonic) passes first.
bool pre_open_wait(bool (*done)(), int64_t deadline_ms);

// Whether a request is posted and not yet served, or a file is being made.
bool pre_open_busy();

// Whether a pre-open thread is still running (the base's, or one left behind
// in a card write by mp4_base_free).
bool pre_open_thread_running();

// mp4_base_free: releases a handler still parked in the slot (closing its
// files), then stops the thread and joins it. A thread still inside a card
// write after the bound is left behind (false).
void pre_open_release_parked();
bool pre_open_stop_thread();

// Called by mp4_session_free before the session goes: a request still posted
// for it is withdrawn, a file being made for it is released and deleted by the
// thread instead of being parked, and a file already parked for it is
// released. Takes mutex_mp4_open only.
void pre_open_forget_session(const mp4_session *session);

}  // namespace mp4rec
