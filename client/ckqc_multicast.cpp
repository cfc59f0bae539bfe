// Multicast quotes: from a datagram to the caller's object, and the reception of groups.
#include <algorithm>  // std::copy, std::fill_n
#include <new>        // std::bad_alloc
#include <utility>    // std::move

#include "client/ckqc_tcp.h"

using VORLAN::SOCK::socket_param;
using VORLAN::TOOLS::mutex_locker;

// ---- Datagrams

int Ckqc_tcp::mc_event_callback(socket_param& param, void* context) {
  const auto* const from = static_cast<const McQuoteContext*>(context);
  const bool has_datagram = param.get_event_type() == VORLAN::SOCK::EVENT_RECEIVE;
  if (has_datagram && from != nullptr && from->client != nullptr) {
    from->client->on_receive_mc_data(param, from->ignored, from->exchange);
  }
  return static_cast<int>(param.get_buff_size());
}

int Ckqc_tcp::on_receive_mc_data(socket_param& param, int, int exchange) {
  const unsigned size = param.get_buff_size();
  try {
    m_last_mc_record = m_mc_decoder.decode(param.get_buff_addr(), size, exchange);
  } catch (const std::bad_alloc&) {
    m_last_mc_record = multicast_record::lumen_refused;  // no memory for its symbol
  }
  return static_cast<int>(size);
}

void Ckqc_tcp::mc_quote_target::OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) {
  const client_life::call call(*m_client.m_life);
  KAVQuoteEvent* event = m_client.m_mc_event.load(std::memory_order_acquire);
  if (event == nullptr) event = m_client.m_event.load(std::memory_order_acquire);
  if (call && event != nullptr) event->OnQuote(type, quote);
}

// ---- Reception

int Ckqc_tcp::start_multicast(const KqsMulticastInfo* groups, unsigned count, KAVQuoteEvent* event,
                              int* results) {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  const bool valid =
      groups != nullptr && event != nullptr && count > 0 && count <= KAV_MULTICAST_MOST_GROUPS;
  if (!visit || !valid) return KAVMulticastInvalidArgument;
  reception_ptr starting;
  try {
    std::vector<int> own_results(count, KAVMulticastNotOpened);
    int result = begin_reception(*event, count, starting);
    if (starting != nullptr) result = starting->open(groups, own_results.data());
    if (starting != nullptr && result != KAVMulticastStarted) {
      end_reception(starting);  // first: the caller may start another one when he hears of it
      starting->explain(result, own_results.data());
    }
    if (results != nullptr) std::copy(own_results.begin(), own_results.end(), results);
    return result;
  } catch (const std::bad_alloc&) {
    if (starting != nullptr) starting->close();
    if (starting != nullptr) end_reception(starting);
    if (results != nullptr) std::fill_n(results, count, int{KAVMulticastNotOpened});
    tell_out_of_memory(*event);
    return KAVMulticastSystemError;
  }
}

void Ckqc_tcp::tell_out_of_memory(KAVQuoteEvent& event) {
  constexpr char k_line[] = "[QuoteClient] multicast: no group was opened: out of memory.";
  const client_life::call call(*m_life);
  try {
    if (call) event.OnLog(LogLevelError, k_line, static_cast<int>(sizeof(k_line) - 1));
  } catch (const std::bad_alloc&) {
    // The result says it too.
  }
}

// Puts a new reception, not open yet, into its place; one that has been stopped has ended then.
int Ckqc_tcp::begin_reception(KAVQuoteEvent& event, unsigned groups, reception_ptr& out) {
  if (const reception_ptr before = reception()) {
    if (!before->is_closed() || before->in_callback()) return KAVMulticastAlreadyStarted;
    before->close();
    end_reception(before);
  }
  auto starting = std::make_shared<kqc_multicast>(*this, m_life, event, groups);
  const mutex_locker guard(m_reception_lock);
  if (m_reception != nullptr) return KAVMulticastAlreadyStarted;
  m_mc_event.store(&event, std::memory_order_release);
  m_reception = starting;
  out = std::move(starting);
  return KAVMulticastStarted;
}

void Ckqc_tcp::end_reception(const reception_ptr& which) {
  const mutex_locker guard(m_reception_lock);
  if (m_reception != which) return;
  m_mc_event.store(nullptr, std::memory_order_release);
  m_reception.reset();  // `which` still holds it
}

Ckqc_tcp::reception_ptr Ckqc_tcp::reception() {
  const mutex_locker guard(m_reception_lock);
  return m_reception;
}

void Ckqc_tcp::stop_multicast() {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  const reception_ptr ending = visit ? reception() : nullptr;
  if (ending == nullptr) return;
  if (ending->in_callback()) {
    ending->close();  // its thread decodes until the callback returns: nobody may follow before
  } else if (ending->is_open()) {
    ending->close();
    end_reception(ending);
  }
}

bool Ckqc_tcp::multicast_statistics(unsigned index, KAVMulticastStatistics* statistics) {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  const reception_ptr current = visit && statistics != nullptr ? reception() : nullptr;
  return current != nullptr && current->statistics(index, *statistics);
}
