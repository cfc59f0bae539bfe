// A run of many lives, several at a time.
#pragma once

#include "tests/chaos/options.h"

namespace kav_chaos {

// Prints what happens and what it found.
exit_status run_lives(const chaos_options& options);

}  // namespace kav_chaos
