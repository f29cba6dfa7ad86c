// FFmpeg's libavcodec, loaded when recover first needs it rather than at
// every start: linked in, its hundred libraries would make each command
// start twenty times slower.
#pragma once

#ifdef MP4STBL_HAVE_LIBAVCODEC

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

namespace mp4stbl::cli {

// The functions the command calls, each under its own name.
#define MP4STBL_LIBAVCODEC_CALLS(X)                                                           \
  X(avcodec_find_decoder) X(avcodec_alloc_context3) X(avcodec_open2) X(avcodec_free_context) \
  X(avcodec_send_packet) X(avcodec_receive_frame) X(avcodec_flush_buffers) X(av_packet_alloc) \
  X(av_packet_free) X(av_packet_unref)
#define MP4STBL_LIBAVUTIL_CALLS(X) X(av_frame_alloc) X(av_frame_free) X(av_mallocz) X(av_log_set_level)

struct Libavcodec {
#define MP4STBL_POINTER(name) decltype(&::name) name = nullptr;
  MP4STBL_LIBAVCODEC_CALLS(MP4STBL_POINTER)
  MP4STBL_LIBAVUTIL_CALLS(MP4STBL_POINTER)
#undef MP4STBL_POINTER
};

// The library of the version the command was built against, or null when
// it is not installed (a 32-bit build beside a 64-bit FFmpeg, say).
const Libavcodec* libavcodec();
// The loaded library, once libavcodec() found it.
inline const Libavcodec& av() { return *libavcodec(); }

}  // namespace mp4stbl::cli

#endif
