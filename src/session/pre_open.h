// Internal hooks of the pre-open thread shared with the base and the front end.
#pragma once

#include <cstdint>

struct mp4_session;

namespace mp4rec {

// Video formats of a pre-open request and of the handler it produces.
inline constexpr uint32_t kVideoJpeg = 1;  // JPEG pictures, MJPEG file with the index at the end
inline constexpr uint32_t kVideoH264 = 2;  // H.264, index reserved in front

// Forgets a request that a previous pre-open thread left unserved; called by
// mp4_base_new before it starts a new thread.
void pre_open_reset_request();

// Called by mp4_session_free before the session goes: a request still posted
// for it is withdrawn, and a file being made for it is released and deleted by
// the thread instead of being parked. Takes mutex_mp4_open only.
void pre_open_forget_session(const mp4_session *session);

}  // namespace mp4rec
