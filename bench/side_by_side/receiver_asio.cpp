// Boost 1.74 uses std::exchange without including it: <utility> comes first.
// clang-format off
#include <utility>
#include <boost/asio.hpp>
// clang-format on
#include <unistd.h>  // dup

#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/stream_cutter.h"

namespace kav_bench {

namespace {

namespace asio = boost::asio;
using boost::system::error_code;

class asio_receiver {
 public:
  asio_receiver(int socket, KAVQuoteEvent& event)
      : m_socket(m_context, asio::ip::tcp::v4(), socket), m_cutter(event, k_large_read_bytes) {}

  bool run() {
    read_next();
    m_context.run();
    return m_good;
  }

 private:
  void read_next() {
    m_socket.async_read_some(
        asio::buffer(m_cutter.room(), k_large_read_bytes),
        [this](const error_code& error, std::size_t bytes) { on_read(error, bytes); });
  }

  void on_read(const error_code& error, std::size_t bytes) {
    m_good = error == asio::error::eof || (!error && m_cutter.received(bytes));
    if (m_good && !error) read_next();
  }

  asio::io_context m_context{1};  // one thread: no locks
  asio::ip::tcp::socket m_socket;
  stream_cutter m_cutter;
  bool m_good = false;
};

}  // namespace

bool receive_with_asio(int socket, KAVQuoteEvent& event) {
  return asio_receiver{::dup(socket), event}.run();
}

}  // namespace kav_bench
