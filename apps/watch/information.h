// What a program prints on standard output, its help or its version, before ending well.
#pragma once

#include <string>  // std::string

namespace kav_watch {

struct information {
  std::string text;
};

}  // namespace kav_watch
