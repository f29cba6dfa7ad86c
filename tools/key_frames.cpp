#include "key_frames.h"

#ifdef MP4STBL_HAVE_LIBAVCODEC

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include <cstring>

namespace mp4stbl::cli {

namespace {

// Decodes one frame alone, as a decoder that starts there would, refusing
// any error in its bit stream.
bool decodesAlone(AVCodecID id, const std::vector<uint8_t>& configuration, const uint8_t* sample,
                  size_t size) {
  av_log_set_level(AV_LOG_QUIET);
  const AVCodec* codec = avcodec_find_decoder(id);
  AVCodecContext* context = codec != nullptr ? avcodec_alloc_context3(codec) : nullptr;
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  std::vector<uint8_t> extradata(configuration);
  std::vector<uint8_t> data(sample, sample + size);
  extradata.resize(configuration.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
  data.resize(size + AV_INPUT_BUFFER_PADDING_SIZE, 0);
  bool decoded = false;
  if (context != nullptr && packet != nullptr && frame != nullptr) {
    context->extradata = static_cast<uint8_t*>(av_mallocz(extradata.size()));
    if (context->extradata != nullptr) {
      std::memcpy(context->extradata, extradata.data(), configuration.size());
      context->extradata_size = static_cast<int>(configuration.size());
    }
    context->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM | AV_EF_BUFFER;
    context->thread_count = 1;
    packet->data = data.data();
    packet->size = static_cast<int>(size);
    decoded = context->extradata != nullptr && avcodec_open2(context, codec, nullptr) == 0 &&
              avcodec_send_packet(context, packet) == 0 &&
              avcodec_send_packet(context, nullptr) == 0 &&
              avcodec_receive_frame(context, frame) == 0 && frame->decode_error_flags == 0 &&
              (frame->flags & AV_FRAME_FLAG_CORRUPT) == 0;
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&context);
  return decoded;
}

}  // namespace

KeyFrameDecodes keyFrameDecodes() {
  return [](bool hevc, const std::vector<uint8_t>& configuration, const uint8_t* sample,
            size_t size) {
    return decodesAlone(hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264, configuration, sample, size);
  };
}

}  // namespace mp4stbl::cli

#else

namespace mp4stbl::cli {

KeyFrameDecodes keyFrameDecodes() { return {}; }

}  // namespace mp4stbl::cli

#endif
