// Why a child of stbl could not be read, in words a user follows: the
// box, what it claims and what it holds. The reader's own log line, when
// there is one, follows as detail.
#pragma once

#include <string>

#include "../stbl.h"

namespace mp4stbl {

// Box types are four bytes of anything: those outside printable ASCII are
// shown as \xNN (a backslash stays as it is, so printing twice changes
// nothing).
std::string printable(const std::string& bytes);

// `kept` is the child as bytes; `detail` the line the failed read logged.
std::string explainUnreadable(const UserDefAtom& kept, const std::string& detail);

}  // namespace mp4stbl
