// Whether a video key frame decodes with a sample entry's decoder
// configuration, checked with FFmpeg's libavcodec when the command is
// built with it.
#pragma once

#include <mp4stbl/recover/recover.h>

namespace mp4stbl::cli {

// Empty when the command was built without libavcodec or it is not
// installed.
KeyFrameDecodes keyFrameDecodes();

}  // namespace mp4stbl::cli
