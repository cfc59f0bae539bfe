#include "feeds/exchange_id.h"

#include <cstring>  // strcmp

const char k_exchange_cffex[6] = "CFFEX";
const char k_exchange_shfe[5] = "SHFE";
const char k_exchange_dce[4] = "DCE";
const char k_exchange_czce[5] = "CZCE";
const char k_exchange_gfex[5] = "GFEX";
const char k_exchange_shz[4] = "SHZ";
const char k_exchange_ine[4] = "INE";
const char k_exchange_sge[4] = "SGE";

namespace {

struct exchange_row {
  const char* name;
  int number;
};

constexpr exchange_row k_exchanges[] = {
    {k_exchange_cffex, k_exchange_number_cffex}, {k_exchange_shfe, k_exchange_number_shfe},
    {k_exchange_dce, k_exchange_number_dce},     {k_exchange_czce, k_exchange_number_czce},
    {k_exchange_gfex, k_exchange_number_gfex},   {k_exchange_shz, k_exchange_number_shz},
    {k_exchange_ine, k_exchange_number_ine},     {k_exchange_sge, k_exchange_number_sge},
};

}  // namespace

int get_int_exchange_id(const char* name) {
  if (name == nullptr) return k_exchange_number_unknown;
  for (const exchange_row& row : k_exchanges) {
    if (std::strcmp(row.name, name) == 0) return row.number;
  }
  return k_exchange_number_unknown;
}
