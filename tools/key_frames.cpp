#include "key_frames.h"

#ifdef MP4STBL_HAVE_LIBAVCODEC

#include "libavcodec.h"

#include <algorithm>
#include <cstring>

namespace mp4stbl::cli {

namespace {

// Decodes one frame alone, as a decoder that starts there would, refusing
// any error in its bit stream.
DecodedFrame decodeAlone(AVCodecID id, const std::vector<uint8_t>& configuration, const uint8_t* sample,
                  size_t size) {
  av().av_log_set_level(AV_LOG_QUIET);
  const AVCodec* codec = av().avcodec_find_decoder(id);
  AVCodecContext* context = codec != nullptr ? av().avcodec_alloc_context3(codec) : nullptr;
  AVPacket* packet = av().av_packet_alloc();
  AVFrame* frame = av().av_frame_alloc();
  std::vector<uint8_t> extradata(configuration);
  std::vector<uint8_t> data(sample, sample + size);
  extradata.resize(configuration.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
  data.resize(size + AV_INPUT_BUFFER_PADDING_SIZE, 0);
  DecodedFrame decoded;
  if (context != nullptr && packet != nullptr && frame != nullptr) {
    context->extradata = static_cast<uint8_t*>(av().av_mallocz(extradata.size()));
    if (context->extradata != nullptr) {
      std::memcpy(context->extradata, extradata.data(), configuration.size());
      context->extradata_size = static_cast<int>(configuration.size());
    }
    context->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM | AV_EF_BUFFER;
    context->thread_count = 1;
    packet->data = data.data();
    packet->size = static_cast<int>(size);
    decoded.decoded = context->extradata != nullptr && av().avcodec_open2(context, codec, nullptr) == 0 &&
              av().avcodec_send_packet(context, packet) == 0 &&
              av().avcodec_send_packet(context, nullptr) == 0 &&
              av().avcodec_receive_frame(context, frame) == 0 && frame->decode_error_flags == 0 &&
              (frame->flags & AV_FRAME_FLAG_CORRUPT) == 0;
  }
  if (decoded.decoded) {
    decoded.width = static_cast<uint32_t>(std::max(frame->width, 0));
    decoded.height = static_cast<uint32_t>(std::max(frame->height, 0));
    decoded.channels = static_cast<uint32_t>(std::max(frame->ch_layout.nb_channels, 0));
    decoded.sampleRate = static_cast<uint32_t>(std::max(frame->sample_rate, 0));
  }
  av().av_frame_free(&frame);
  av().av_packet_free(&packet);
  av().avcodec_free_context(&context);
  return decoded;
}

}  // namespace

KeyFrameDecodes keyFrameDecodes() {
  if (libavcodec() == nullptr) return {};
  return [](bool hevc, const std::vector<uint8_t>& configuration, const uint8_t* sample,
            size_t size) {
    return decodeAlone(hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264, configuration, sample, size);
  };
}

AacFrameDecodes aacFrameDecodes() {
  if (libavcodec() == nullptr) return {};
  return [](const std::vector<uint8_t>& specificConfig, const uint8_t* frame, size_t size) {
    return decodeAlone(AV_CODEC_ID_AAC, specificConfig, frame, size);
  };
}

}  // namespace mp4stbl::cli

#else

namespace mp4stbl::cli {

KeyFrameDecodes keyFrameDecodes() { return {}; }
AacFrameDecodes aacFrameDecodes() { return {}; }

}  // namespace mp4stbl::cli

#endif
