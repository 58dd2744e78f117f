// Shows the library's log on standard error.
#pragma once

namespace orvelctl {

// Takes the log over: lines of at least `level` (an Android log priority) are shown.
void watchLog(int level);

}  // namespace orvelctl
