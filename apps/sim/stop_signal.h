// The end of a program that runs until somebody asks it to stop.
#pragma once

namespace kav_sim {

// From now on SIGINT and SIGTERM only ask to stop, and SIGPIPE does nothing: whoever reads the
// program's lines may go away.
void catch_stop_signals();

// Has it been asked to stop? Any thread.
bool is_stop_asked();

}  // namespace kav_sim
