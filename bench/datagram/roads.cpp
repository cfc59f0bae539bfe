#include "bench/datagram/roads.h"

#include <sys/epoll.h>   // epoll_wait
#include <sys/socket.h>  // recv
#include <unistd.h>      // close

#include <atomic>  // std::atomic
#include <thread>  // std::thread

#include "api/kav_multicast.h"
#include "bench/datagram/yardstick.h"
#include "feeds/exchange_id.h"
#include "feeds/multicast_decoder.h"
#include "sock/socket_multicast.h"
#include "tools/helpers.h"

namespace kav_bench {

namespace {

constexpr int k_wait_ms = 50;  // as the library waits

// What both loops share: a socket, a thread and its end.
class loop_road : public road {
 public:
  ~loop_road() override { end(); }
  bool open(const group_address& group, KAVQuoteEvent& event) override {
    if (!m_socket.open_receiver(group) || !prepare()) return false;
    m_thread = std::thread([this, &event] { run(event); });
    return true;
  }

 protected:
  virtual bool prepare() { return true; }
  virtual void run(KAVQuoteEvent& event) = 0;
  // By the destructor of the class that runs.
  void end() {
    if (!m_thread.joinable()) return;
    m_stop.store(true);
    m_socket.shut_down();
    m_thread.join();
  }
  // False: the socket is shut down.
  bool receive(KAVQuoteEvent& event) {
    const ssize_t received = ::recv(m_socket.get(), m_buffer, sizeof(m_buffer), 0);
    if (received <= 0) return false;
    deliver(m_buffer, static_cast<std::size_t>(received), event);
    return true;
  }
  int socket() const { return m_socket.get(); }
  bool is_stopped() const { return m_stop.load(std::memory_order_relaxed); }

 private:
  group_socket m_socket;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
  char m_buffer[65'536];
};

class bare_road final : public loop_road {
 public:
  ~bare_road() override { end(); }
  const char* name() const override { return "recv() loop"; }
  const char* key() const override { return "bare_recv"; }

 private:
  void run(KAVQuoteEvent& event) override {
    while (receive(event)) {
    }
  }
};

class epoll_road final : public loop_road {
 public:
  ~epoll_road() override {
    end();
    if (m_epoll >= 0) ::close(m_epoll);
  }
  const char* name() const override { return "epoll_wait() and recv() loop"; }
  const char* key() const override { return "epoll_recv"; }

 private:
  bool prepare() override {
    m_epoll = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    return m_epoll >= 0 && ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, socket(), &event) == 0;
  }
  void run(KAVQuoteEvent& event) override {
    epoll_event ready{};
    while (!is_stopped()) {
      if (::epoll_wait(m_epoll, &ready, 1, k_wait_ms) == 1 && !receive(event)) return;
    }
  }

  int m_epoll = -1;
};

class receiver_road final : public road {
 public:
  ~receiver_road() override { m_receiver.sock_close(); }
  const char* name() const override { return "socket_multicast, multicast_decoder"; }
  const char* key() const override { return "receiver"; }
  bool open(const group_address& group, KAVQuoteEvent& event) override {
    m_decoder.set_event(&event);
    m_receiver.add_multicast_param(group.ip, group.port, k_local_ip, 0, "");
    return m_receiver.sock_init(VORLAN::SOCK::MULTICAST_RECEIVE, decode, this);
  }

 private:
  static int decode(VORLAN::SOCK::socket_param& param, void* self) {
    if (param.get_event_type() == VORLAN::SOCK::EVENT_RECEIVE) {
      static_cast<receiver_road*>(self)->m_decoder.decode(
          param.get_buff_addr(), param.get_buff_size(), k_exchange_number_shfe);
    }
    return static_cast<int>(param.get_buff_size());
  }

  multicast_decoder m_decoder;
  VORLAN::SOCK::socket_multicast m_receiver;
};

class client_road final : public road {
 public:
  ~client_road() override { DestroyKAVQuoteApi(m_client); }
  const char* name() const override { return "StartKAVMulticast()"; }
  const char* key() const override { return "client"; }
  bool open(const group_address& group, KAVQuoteEvent& event) override {
    using VORLAN::TOOLS::strncpy_vl;
    KqsMulticastInfo info{};
    strncpy_vl(info.m_GroupIp, sizeof(info.m_GroupIp), group.ip.c_str());
    info.m_GroupPort = group.port;
    strncpy_vl(info.m_LocalIp, sizeof(info.m_LocalIp), k_local_ip);
    strncpy_vl(info.m_ExchangeId, sizeof(info.m_ExchangeId), "SHFE");
    return StartKAVMulticast(m_client, &info, 1, &event, nullptr) == KAVMulticastStarted;
  }

 private:
  KAVQuoteApi* const m_client = CreateKAVQuoteApi();
};

}  // namespace

std::vector<std::unique_ptr<road>> make_roads() {
  std::vector<std::unique_ptr<road>> roads;
  roads.push_back(std::make_unique<bare_road>());
  roads.push_back(std::make_unique<epoll_road>());
  roads.push_back(std::make_unique<receiver_road>());
  roads.push_back(std::make_unique<client_road>());
  return roads;
}

}  // namespace kav_bench
