// A fragmented file made regular in memory, so that the editor can take
// it like any other: every track's samples, those of its sample table and
// those of its movie fragments, described by one complete sample table.
#pragma once

#include "../box/mp4file.h"
#include "../box/result.h"

namespace mp4stbl::edit {

// Whether `file` has movie fragments: moof boxes, or mvex in its moov.
bool isFragmented(Mp4File& file);

// Gives every track of a fragmented `file` sample tables that hold all its
// samples (chunk offsets into the file as read, whose media stays where it
// is), its media duration and an edit list of proper lengths, then drops
// mvex and the fragment boxes (moof, mfra, sidx, ssix, styp, prft). A
// regular file is left as it is. Fails, naming the track, when a track or a
// fragment cannot be walked.
Status flattenFragments(Mp4File& file);

}  // namespace mp4stbl::edit
