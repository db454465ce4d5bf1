#pragma once

namespace station {

// The signals that ask the program to stop are SIGINT (Ctrl-C), SIGTERM, and SIGHUP unless it has
// another meaning or was ignored when the program started, as under nohup. From this call on, the
// first one makes the returned descriptor readable, which belongs to the process, and the second
// one ends the process at once with exit code 130. To be called once. Throws StationError
// (Internal).
int watchStopSignals(bool isHangUpStop);

// Whether the first one has come. Threads: any.
bool isStopRequested();

// From now on writing reports an error where a signal would end the process: to a pipe without a
// reader, and beyond the largest size of a file.
void ignoreWriteSignals();

}  // namespace station
