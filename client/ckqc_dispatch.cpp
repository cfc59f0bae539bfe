// What the server sends: messages cut from the stream by their first byte.
#include <cstring>  // memcpy, memset, strnlen

#include "client/ckqc_tcp.h"
#include "feeds/sge_symbol.h"

namespace {

// As strncpy() does: padded with zeros, and without a NUL when the text fills the field.
template <std::size_t N>
void fill_field(char (&field)[N], const char* text) {
  std::memset(field, 0, N);
  std::memcpy(field, text, ::strnlen(text, N));
}

}  // namespace

unsigned int Ckqc_tcp::on_tcp_client_data_recv(const char* data, unsigned int length) {
  return dispatch(data, length, 0);
}

// `from`: the connection that the bytes came over.
unsigned int Ckqc_tcp::dispatch(const char* data, unsigned int length, std::uint32_t from) {
  if (data == nullptr || length == 0) return 0;
  switch (data[0]) {
    case k_kqs_quote:
      return on_quote_snapshot(data, length);
    case k_kqs_login_resp:
      return handle_login_resp(data, length, from);
    case k_kqs_unreg_symbol_resp:
      return on_unreg_symbol_resp(data, length);
    case k_kqs_heartbeat:
      return sizeof(kqs_heartbeat);  // also when fewer have arrived: the rest is thrown away then
    case k_kqs_reg_symbol_resp:
      return on_reg_symbol_resp(data, length);
    case k_kqs_symbol_list_resp:
      return on_symbol_list_resp(data, length);
    default:
      write_log(LogLevelError, "[QuoteClient] receive unknown msg type: %d. length is %d",
                int{static_cast<signed char>(data[0])}, static_cast<int>(length));
      return length;
  }
}

unsigned int Ckqc_tcp::on_quote_snapshot(const char* data, unsigned int length) {
  if (data == nullptr) return 0;
  return deliver_quote(data, length, event_call{*this});
}

unsigned int Ckqc_tcp::deliver_quote(const char* data, unsigned int length, const event_call& to) {
  if (length < sizeof(kqs_quote)) return 0;
  // The receive buffer is ours to change: the caller gets his own name for the symbol in place.
  auto* const msg = reinterpret_cast<kqs_quote*>(const_cast<char*>(data));
  const char* const name = vex_symbol_to_sge_symbol(msg->quote.InstrumentID);
  if (name != nullptr) fill_field(msg->quote.InstrumentID, name);
  if (KAVQuoteEvent* const receiver = to.next()) {
    receiver->OnQuote(static_cast<KavKqsIntrumentType>(msg->instrument_type), &msg->quote);
  }
  return sizeof(kqs_quote);
}
