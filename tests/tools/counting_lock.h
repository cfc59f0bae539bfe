// A lock policy that tells how often it was taken and whether it was given back.
#pragma once

struct counting_lock {
  int lock() {
    ++s_depth;
    ++s_taken;
    return 0;
  }
  int unlock() {
    --s_depth;
    return 0;
  }

  static void reset() { s_depth = s_taken = 0; }

  // Tests that use it have one thread and one table at a time.
  inline static int s_depth = 0;
  inline static int s_taken = 0;
};
