// Gold-exchange symbols: the quote server knows each by a one-character code, the caller by name.
#pragma once

#include <cstddef>  // offsetof

struct sge_symbol_row {
  char code[8];          //  0  the server's code, one character
  char sge_symbol[16];   //  8  the caller's name
  char symbol_class[8];  // 24  not read by the library
};
static_assert(sizeof(sge_symbol_row) == 32, "row length");
static_assert(offsetof(sge_symbol_row, sge_symbol) == 8, "row layout");
static_assert(offsetof(sge_symbol_row, symbol_class) == 24, "row layout");

// Five contracts and an all-zero row that ends the search. A caller may write to it, before it
// uses a client; the library never does.
constexpr int k_sge_symbol_rows = 6;
extern sge_symbol_row g_sge_symbol[k_sge_symbol_rows];

// The gold-exchange name of the first row whose code begins like `code` (only the first character
// counts), or null. Points into the table: not to be freed. Any thread.
char* vex_symbol_to_sge_symbol(const char* code);

// The server's code of the gold-exchange contract `symbol` (exact), or null. Points into the table.
char* sge_symbol_to_vex_symbol(const char* symbol);
