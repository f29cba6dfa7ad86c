// The length of raw AAC frames, found by decoding them with FFmpeg's
// libavcodec when the command is built with it.
#pragma once

#include <mp4stbl/recover/recover.h>

namespace mp4stbl::cli {

// Empty when the command was built without libavcodec or it is not
// installed.
AacFrameLength aacFrameLength();

}  // namespace mp4stbl::cli
