#include "feeds/sge_symbol.h"

#include <cstring>  // strcmp

sge_symbol_row g_sge_symbol[k_sge_symbol_rows] = {
    {"0", "Au(T+D)", "02"},  {"1", "Ag(T+D)", "02"},  {"2", "mAu(T+D)", "02"},
    {"3", "Au(T+N1)", "02"}, {"4", "Au(T+N2)", "02"}, {"", "", ""},
};

char* vex_symbol_to_sge_symbol(const char* code) {
  if (code == nullptr) return nullptr;
  for (sge_symbol_row& row : g_sge_symbol) {
    if (row.code[0] == '\0') return nullptr;
    if (row.code[0] == code[0]) return row.sge_symbol;
  }
  return nullptr;
}

char* sge_symbol_to_vex_symbol(const char* symbol) {
  if (symbol == nullptr) return nullptr;
  for (sge_symbol_row& row : g_sge_symbol) {
    if (row.sge_symbol[0] == '\0') return nullptr;
    if (std::strcmp(row.sge_symbol, symbol) == 0) return row.code;
  }
  return nullptr;
}
