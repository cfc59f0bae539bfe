// kav-faults-loader: a host that is not linked with the library, but loads it.
//
//   kav-faults-loader two-copies|dlclose LIBRARY PORT
//
// The server at PORT lists IF2509 and sends its quotes. Tells its findings in lines (see
// result_lines.h). Exit status: 0 told, 2 wrong arguments.
#include <dlfcn.h>   // dlopen
#include <stdlib.h>  // mkdtemp

#include <cstdio>      // fputs
#include <cstdlib>     // strtoul
#include <filesystem>  // copy_file
#include <fstream>     // std::ifstream

#include "tests/faults/caller.h"
#include "tests/faults/process_state.h"
#include "tests/faults/result_lines.h"
#include "tests/support/process_view.h"

namespace {

using namespace kav_faults;

constexpr char k_symbol[] = "IF2509";
constexpr int k_loads = 100;
constexpr std::uint64_t k_quotes = 2000;
constexpr double k_most_growth_kib = 512;

// A handle of dlopen() and what it exports.
struct loaded {
  explicit loaded(const std::string& path) : handle(::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    functions.create = reinterpret_cast<KAVQuoteApi* (*)()>(::dlsym(handle, "CreateKAVQuoteApi"));
    functions.destroy =
        reinterpret_cast<void (*)(KAVQuoteApi*)>(::dlsym(handle, "DestroyKAVQuoteApi"));
  }
  bool complete() const {
    return handle != nullptr && functions.create != nullptr && functions.destroy != nullptr;
  }
  void* handle;
  library functions{};
};

// A folder of its own, gone at the end.
struct own_folder {
  own_folder() {
    char name[] = "/tmp/kav-faults-XXXXXX";
    if (::mkdtemp(name) != nullptr) path = name;
  }
  own_folder(const own_folder&) = delete;
  own_folder& operator=(const own_folder&) = delete;
  ~own_folder() {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
  }
  std::string copy_of(const std::string& file, const std::string& name) const {
    const std::string to = path + "/" + name;
    std::error_code error;
    std::filesystem::copy_file(file, to, error);
    return error ? "" : to;
  }
  std::string path;
};

bool open_session(host& h, unsigned short port) {
  return h.log_in(port) && h.register_symbol(k_symbol) && h.events.wait_quotes(1);
}

// How many mappings of files with this name the process has.
double mappings(const std::string& name) {
  double count = 0;
  std::ifstream maps{"/proc/self/maps"};
  for (std::string line; std::getline(maps, line);) {
    if (line.find(name) != std::string::npos) ++count;
  }
  return count;
}

void both_at_once(fault_result& r, host& first, host& second, unsigned short port) {
  if (!r.expect(open_session(first, port), "the first copy has a session") ||
      !r.expect(open_session(second, port), "the second copy has a session beside it")) {
    return;
  }
  r.expect(first.events.wait_quotes(k_quotes) && second.events.wait_quotes(k_quotes),
           "quotes flow in both");
  first.destroy();
  r.expect(second.events.wait_quotes(k_quotes), "the second goes on when the first has ended");
  r.expect(first.events.missing() + second.events.missing() == 0, "neither loses a quote");
  r.add("quotes in the first", static_cast<double>(first.events.quotes()), "");
  r.add("quotes in the second", static_cast<double>(second.events.quotes()), "");
}

void two_copies(fault_result& r, const std::string& path, unsigned short port) {
  const own_folder folder;
  const loaded first{folder.copy_of(path, "libfirst.so")};
  const loaded second{folder.copy_of(path, "libsecond.so")};
  if (!r.expect(first.complete() && second.complete(), "both copies load")) return;
  r.expect(first.functions.create != second.functions.create, "they are two");
  host one{first.functions}, other{second.functions};
  both_at_once(r, one, other, port);
}

void close_under_a_client(fault_result& r, const std::string& path, unsigned short port) {
  const loaded library_file{path};
  if (!r.expect(library_file.complete(), "the library loads")) return;
  host h{library_file.functions};
  if (!r.expect(open_session(h, port), "there is a session")) return;
  const double before = mappings("libkavquote");
  r.expect(::dlclose(library_file.handle) == 0, "dlclose() succeeds");
  r.expect(before > 0 && mappings("libkavquote") == before, "nothing is unmapped");
  r.expect(h.events.wait_quotes(k_quotes), "quotes flow on");
  r.expect(h.events.missing() == 0, "no quote is lost");
  r.add("quotes after `dlclose`", static_cast<double>(h.events.quotes()), "");
}

void load_many_times(fault_result& r, const std::string& path) {
  const process_state before = state_of_process();
  const double mapped = mappings("libkavquote");
  bool all_well = true;
  for (int i = 0; i < k_loads; ++i) {
    const loaded again{path};
    all_well = all_well && again.complete();
    if (all_well) again.functions.destroy(again.functions.create());
    ::dlclose(again.handle);
  }
  const process_state after = state_of_process();
  r.expect(all_well, "it loads each time");
  r.expect(mappings("libkavquote") == mapped, "it stays mapped once");
  const double growth = difference(after.resident_kib, before.resident_kib);
  r.add("memory more after 100 loads and clients", growth, "KiB");
  // AddressSanitizer keeps what is freed for a while.
  r.expect(kav_test::k_sanitized || growth < k_most_growth_kib, "loads leave no memory behind");
  r.expect(after.descriptors == before.descriptors, "nor descriptors");
  r.expect(after.threads == before.threads, "nor threads");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc == 4 ? argv[1] : "";
  if (mode != "two-copies" && mode != "dlclose") {
    std::fputs("kav-faults-loader: needs two-copies or dlclose, LIBRARY and PORT\n", stderr);
    return 2;
  }
  const auto port = static_cast<unsigned short>(std::strtoul(argv[3], nullptr, 10));
  fault_result result;
  if (mode == "two-copies") {
    two_copies(result, argv[2], port);
  } else {
    close_under_a_client(result, argv[2], port);
    load_many_times(result, argv[2]);
  }
  std::fputs(to_lines(result).c_str(), stdout);
  return 0;
}
