// The decoder alone, without sockets.
#pragma once

namespace kav_bench {

// Nanoseconds for each datagram of SHFE, medians over interleaved rounds.
struct decode_figures {
  double by_hand_ns = 0;  // conversion and virtual call
  double decoder_ns = 0;
};

decode_figures time_decoder(unsigned rounds);

}  // namespace kav_bench
