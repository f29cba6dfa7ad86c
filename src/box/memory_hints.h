// Hints to the kernel about memory the tables are about to fill.
#pragma once

#include <cstddef>

namespace mp4stbl {

// Asks for transparent huge pages on a block of at least 2 MiB that is
// about to be written whole (a table being read), where the kernel offers
// them on request: one fault then maps 2 MiB instead of 4 KiB. Does nothing
// elsewhere, and never changes what the block holds.
void adviseHugePages(void* data, size_t bytes);

}  // namespace mp4stbl
