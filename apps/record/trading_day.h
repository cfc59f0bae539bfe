// Which file a quote belongs to.
#pragma once

#include <ctime>        // std::time_t
#include <string>       // std::string
#include <string_view>  // std::string_view

#include "api/kav_quote_api.h"

namespace kav_record {

// Whether the text is a date of the calendar as YYYYMMDD.
bool is_date(std::string_view text);

// Whether a tick file can hold the quote so that a replay reads it: symbol, time and numbers as
// they should be, no text that would need quoting.
bool is_replayable(const KAVMarketDepthQuoteData& quote);

// The trading day that runs at a time, by the clock of China: from 18:00 on the next one, and on
// weekends Monday. It knows no holidays.
std::string trading_day_at(std::time_t now);

// What the name of the quote's file tells: the day that the quote names; where it names none, or is
// not replayable, the day that it names or else runs at `now`, followed by "-odd".
std::string file_day(const KAVMarketDepthQuoteData& quote, std::time_t now);

}  // namespace kav_record
