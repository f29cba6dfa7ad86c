#include "aac_frames.h"

#ifdef MP4STBL_HAVE_LIBAVCODEC

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include <cstring>
#include <memory>
#include <vector>

namespace mp4stbl::cli {

namespace {

// An AAC decoder for one AudioSpecificConfig. The frame at the data is as
// long as the shortest prefix of the data that decodes: a frame cut short
// ends before its END element, which the decoder refuses.
class AacDecoder {
 public:
  explicit AacDecoder(const std::vector<uint8_t>& config) : config_(config) {
    av_log_set_level(AV_LOG_QUIET);
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
    context_ = codec != nullptr ? avcodec_alloc_context3(codec) : nullptr;
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    if (context_ == nullptr || packet_ == nullptr || frame_ == nullptr) return;
    context_->extradata = static_cast<uint8_t*>(av_mallocz(config.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (context_->extradata == nullptr) return;
    std::memcpy(context_->extradata, config.data(), config.size());
    context_->extradata_size = static_cast<int>(config.size());
    ready_ = avcodec_open2(context_, codec, nullptr) == 0;
  }
  ~AacDecoder() {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&context_);
  }
  AacDecoder(const AacDecoder&) = delete;
  AacDecoder& operator=(const AacDecoder&) = delete;

  const std::vector<uint8_t>& config() const { return config_; }

  size_t frameLength(const uint8_t* data, size_t available) {
    if (!ready_ || available == 0) return 0;
    size_t guess = last_ != 0 ? std::min(available, 2 * last_) : available;
    if (!decodes(data, guess)) {
      if (guess == available || !decodes(data, available)) return 0;
      guess = available;
    }
    size_t low = 0;  // does not decode
    size_t high = guess;
    while (high - low > 1) {
      const size_t middle = low + (high - low) / 2;
      (decodes(data, middle) ? high : low) = middle;
    }
    last_ = high;
    return high;
  }

 private:
  bool decodes(const uint8_t* data, size_t length) {
    buffer_.assign(data, data + length);
    buffer_.resize(length + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    avcodec_flush_buffers(context_);
    av_packet_unref(packet_);
    packet_->data = buffer_.data();
    packet_->size = static_cast<int>(length);
    if (avcodec_send_packet(context_, packet_) != 0) return false;
    return avcodec_receive_frame(context_, frame_) == 0;
  }

  std::vector<uint8_t> config_;
  AVCodecContext* context_ = nullptr;
  AVPacket* packet_ = nullptr;
  AVFrame* frame_ = nullptr;
  std::vector<uint8_t> buffer_;
  size_t last_ = 0;
  bool ready_ = false;
};

}  // namespace

AacFrameLength aacFrameLength() {
  auto decoder = std::make_shared<std::unique_ptr<AacDecoder>>();
  return [decoder](const std::vector<uint8_t>& config, const uint8_t* data, size_t available) {
    if (*decoder == nullptr || (*decoder)->config() != config) {
      *decoder = std::make_unique<AacDecoder>(config);
    }
    return (*decoder)->frameLength(data, available);
  };
}

}  // namespace mp4stbl::cli

#else

namespace mp4stbl::cli {

AacFrameLength aacFrameLength() { return {}; }

}  // namespace mp4stbl::cli

#endif
