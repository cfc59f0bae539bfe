#include "bench/side_by_side/processors.h"

#include <sched.h>  // sched_setaffinity

namespace kav_bench {

int sender_processor() {
  cpu_set_t usable;
  if (::sched_getaffinity(0, sizeof usable, &usable) != 0 || CPU_COUNT(&usable) < 2) return -1;
  int first = 0;
  while (!CPU_ISSET(first, &usable)) ++first;
  return first;
}

void stay_on(int processor) {
  if (processor < 0) return;
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(processor, &only);
  ::sched_setaffinity(0, sizeof only, &only);
}

void stay_off(int processor) {
  cpu_set_t usable;
  if (processor < 0 || ::sched_getaffinity(0, sizeof usable, &usable) != 0) return;
  CPU_CLR(processor, &usable);
  ::sched_setaffinity(0, sizeof usable, &usable);
}

}  // namespace kav_bench
