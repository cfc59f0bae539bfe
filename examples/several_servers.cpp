// One program, several servers: each has a client of its own, with threads of its own. What they
// share, here the output, needs a lock.
// several_servers QUOTES SYMBOL ADDRESS:PORT...
#include <condition_variable>  // std::condition_variable
#include <iostream>            // std::cout
#include <memory>              // std::unique_ptr
#include <mutex>               // std::mutex

#include "session.h"

namespace {

// Threads: each server's quotes come on another thread.
class shared_output {
 public:
  void print(const std::string& server, const KAVMarketDepthQuoteData& quote) {
    const std::lock_guard<std::mutex> guard(m_lock);
    std::cout << server << ' ' << quote.UpdateTime << ' ' << quote.InstrumentID << ' '
              << double{quote.LastPrice} << std::endl;
    ++m_lines;
    m_changed.notify_one();
  }
  void wait_for(int lines) {
    std::unique_lock<std::mutex> guard(m_lock);
    m_changed.wait(guard, [&] { return m_lines >= lines; });
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  int m_lines = 0;  // under m_lock
};

// The parts of "ADDRESS:PORT".
bool open(session& client, const std::string& server, const std::string& symbol) {
  const std::size_t colon = server.find(':');
  if (colon == std::string::npos) return false;
  return client.open(server.substr(0, colon), count_from(server.c_str() + colon + 1), {symbol});
}

}  // namespace

int main(int argc, char** argv) {
  const int quotes = argc < 4 ? 0 : count_from(argv[1]);
  if (quotes == 0) {
    std::cerr << "usage: several_servers QUOTES SYMBOL ADDRESS:PORT...\n";
    return 2;
  }
  shared_output output;
  std::vector<std::unique_ptr<session>> clients;
  for (int i = 3; i < argc; ++i) {
    const std::string server = argv[i];
    clients.push_back(std::make_unique<session>(
        [&output, server](const KAVMarketDepthQuoteData& quote) { output.print(server, quote); }));
    if (open(*clients.back(), server, argv[2])) continue;
    std::cerr << server << ": goes without\n";  // the others do not need it
    clients.pop_back();
  }
  if (clients.empty()) return 1;
  output.wait_for(quotes);
}
// Prints:
//   127.0.0.1:9000 09:00:00 IF2509 3500.2
//   127.0.0.1:9001 09:00:00 IF2509 3500.2
