// Exchange names and the numbers that select a feed decoder.
#pragma once

// The exchange names, kept once each; the feed converters copy them into ExchangeID.
extern const char k_exchange_cffex[6];
extern const char k_exchange_shfe[5];
extern const char k_exchange_dce[4];
extern const char k_exchange_czce[5];
extern const char k_exchange_gfex[5];
extern const char k_exchange_shz[4];
extern const char k_exchange_ine[4];
extern const char k_exchange_sge[4];

// Exchange numbers, as returned by get_int_exchange_id().
enum kav_exchange_number : int {
  k_exchange_number_unknown = 0,
  k_exchange_number_shz = 101,
  k_exchange_number_cffex = 102,
  k_exchange_number_shfe = 103,
  k_exchange_number_dce = 104,
  k_exchange_number_czce = 105,
  k_exchange_number_ine = 106,
  k_exchange_number_sge = 107,
  k_exchange_number_gfex = 108,
};

// The number of an exchange name (exact, case-sensitive), 0 for any other text and for null.
// Any thread.
int get_int_exchange_id(const char* name);
