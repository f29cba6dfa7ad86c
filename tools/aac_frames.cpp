#include "aac_frames.h"

#ifdef MP4STBL_HAVE_LIBAVCODEC

#include "libavcodec.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace mp4stbl::cli {

namespace {

// Frames split from one window: a chunk seldom holds more.
constexpr size_t kMaxSplit = 64;

// An AAC decoder for one AudioSpecificConfig. Given bytes that hold
// several frames, the decoder takes one after the other and tells with
// each how many bytes were left from its start: a frame's length is the
// difference, and a frame that takes every byte left ends the data. Else,
// the frame at the data is as long as the shortest prefix of the data that
// decodes: a frame cut short ends before its END element, which the
// decoder refuses.
class AacDecoder {
 public:
  explicit AacDecoder(const std::vector<uint8_t>& config) : config_(config) {
    av().av_log_set_level(AV_LOG_QUIET);
    const AVCodec* codec = av().avcodec_find_decoder(AV_CODEC_ID_AAC);
    context_ = codec != nullptr ? av().avcodec_alloc_context3(codec) : nullptr;
    packet_ = av().av_packet_alloc();
    frame_ = av().av_frame_alloc();
    if (context_ == nullptr || packet_ == nullptr || frame_ == nullptr) return;
    context_->extradata = static_cast<uint8_t*>(av().av_mallocz(config.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (context_->extradata == nullptr) return;
    std::memcpy(context_->extradata, config.data(), config.size());
    context_->extradata_size = static_cast<int>(config.size());
    ready_ = av().avcodec_open2(context_, codec, nullptr) == 0;
  }
  ~AacDecoder() {
    av().av_frame_free(&frame_);
    av().av_packet_free(&packet_);
    av().avcodec_free_context(&context_);
  }
  AacDecoder(const AacDecoder&) = delete;
  AacDecoder& operator=(const AacDecoder&) = delete;

  const std::vector<uint8_t>& config() const { return config_; }

  size_t frameLength(const uint8_t* data, size_t available) {
    if (!ready_ || available == 0) return 0;
    if (const size_t known = knownLength(data, available)) return known;
    if (split(data, available)) return knownLength(data, available);
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
  // The length of the frame at the data when it is the next one that the
  // last split() saw; 0 otherwise. A walk that takes the frames in a row
  // asks for them in that order.
  size_t knownLength(const uint8_t* data, size_t available) {
    if (next_ == known_.size()) return 0;
    const auto [from, length] = known_[next_];
    if (length > available || std::memcmp(buffer_.data() + from, data, length) != 0) {
      next_ = known_.size();
      return 0;
    }
    ++next_;
    return length;
  }

  // Decodes the frames that the data starts with, in one pass, and keeps
  // those whose length is certain; false when not even the first one's is.
  bool split(const uint8_t* data, size_t available) {
    known_.clear();
    next_ = 0;
    std::vector<size_t> left;  // bytes from each decoded frame's start to the data's end
    if (!send(data, available)) return false;
    int received = 0;
    while (left.size() < kMaxSplit && (received = av().avcodec_receive_frame(context_, frame_)) == 0) {
      const auto size = static_cast<size_t>(std::max(frame_->pkt_size, 0));
      // The first frame starts the data; each later one starts further on.
      if (left.empty() ? size != available : size == 0 || size >= left.back()) return false;
      left.push_back(size);
    }
    // Every byte taken: the last frame ends the data, unless the decoder
    // took zeros after it as its own (a frame ends in its END element, never in a zero byte).
    if (received == AVERROR(EAGAIN) && !left.empty() && data[available - 1] != 0) left.push_back(0);
    for (size_t f = 0; f + 1 < left.size(); ++f) {
      known_.emplace_back(available - left[f], left[f] - left[f + 1]);
    }
    return !known_.empty();
  }

  bool send(const uint8_t* data, size_t length) {
    buffer_.assign(data, data + length);
    buffer_.resize(length + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    av().avcodec_flush_buffers(context_);
    av().av_packet_unref(packet_);
    packet_->data = buffer_.data();
    packet_->size = static_cast<int>(length);
    return av().avcodec_send_packet(context_, packet_) == 0;
  }

  bool decodes(const uint8_t* data, size_t length) {
    return send(data, length) && av().avcodec_receive_frame(context_, frame_) == 0;
  }

  std::vector<uint8_t> config_;
  AVCodecContext* context_ = nullptr;
  AVPacket* packet_ = nullptr;
  AVFrame* frame_ = nullptr;
  std::vector<uint8_t> buffer_;
  std::vector<std::pair<size_t, size_t>> known_;  // in buffer_: offset and length of each frame split
  size_t next_ = 0;  // in known_: the frame the walk asks for next
  size_t last_ = 0;
  bool ready_ = false;
};

}  // namespace

AacFrameLength aacFrameLength() {
  if (libavcodec() == nullptr) return {};
  // A decoder for each thread that asks: recovery splits AAC chunks on two.
  return [](const std::vector<uint8_t>& config, const uint8_t* data, size_t available) {
    thread_local std::unique_ptr<AacDecoder> decoder;
    if (decoder == nullptr || decoder->config() != config) {
      decoder = std::make_unique<AacDecoder>(config);
    }
    return decoder->frameLength(data, available);
  };
}

}  // namespace mp4stbl::cli

#else

namespace mp4stbl::cli {

AacFrameLength aacFrameLength() { return {}; }

}  // namespace mp4stbl::cli

#endif
