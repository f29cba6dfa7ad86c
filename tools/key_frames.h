// The first frame of a recovered track decoded alone with a sample
// entry's decoder configuration (a video key frame, an AAC frame), with
// FFmpeg's libavcodec when the command is built with it.
#pragma once

#include <mp4stbl/recover/recover.h>

namespace mp4stbl::cli {

// Empty when the command was built without libavcodec or it is not
// installed.
KeyFrameDecodes keyFrameDecodes();
AacFrameDecodes aacFrameDecodes();

}  // namespace mp4stbl::cli
