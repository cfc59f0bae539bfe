// kav-chaos: random lives of clients at servers that misbehave.
#include <fmt/format.h>

#include <cstdio>     // fprintf
#include <exception>  // std::exception

#include "tests/chaos/options.h"
#include "tests/chaos/run.h"
#include "tests/chaos/script.h"

namespace {

using namespace kav_chaos;

void print_scripts(const chaos_options& options) {
  const unsigned first = options.life.value_or(0);
  const unsigned end = options.life ? first + 1 : options.lives;
  for (unsigned number = first; number < end; ++number) {
    fmt::print("{}", text_of(make_script(options.seed, number)));
  }
}

int run(int argc, char** argv) {
  const auto parsed = parse_options(argc, argv);
  if (const auto* const end = std::get_if<early_end>(&parsed)) {
    fmt::print(end->status == exit_status::kept ? stdout : stderr, "{}", end->text);
    return static_cast<int>(end->status);
  }
  const chaos_options& options = std::get<chaos_options>(parsed);
  if (!options.script) return static_cast<int>(run_lives(options));
  print_scripts(options);
  return static_cast<int>(exit_status::kept);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {  // such as no memory or no thread left
    std::fprintf(stderr, "kav-chaos: %s; run fewer lives at once (--parallel)\n", error.what());
    return static_cast<int>(exit_status::cannot_run);
  }
}
