#pragma once

namespace station {

// Handles SIGINT (Ctrl-C) and SIGTERM, and with `isHangUpStop` SIGHUP unless it is ignored, as
// under nohup. The first signal makes the returned descriptor readable; the second ends the process
// with exit code 130. The process owns the descriptor. To be called once. Throws StationError
// (Internal).
int watchStopSignals(bool isHangUpStop);

// Whether the first of them has arrived. Threads: any.
bool isStopRequested();

// Ignores SIGPIPE and SIGXFSZ: writing to a pipe without a reader, or beyond the file size limit,
// then reports an error.
void ignoreWriteSignals();

}  // namespace station
