// Feed records of the exchanges and of the lumen format, turned into quote records.
//
// The source may lie at any address. Only the bytes of its fields are read (see feed_records.h), so
// that a caller needs to provide no more; texts that do not fit are cut. A null argument makes a
// call do nothing. Any thread; the two records are used only during the call.
#pragma once

#include "api/kav_quote_api.h"
#include "feeds/feed_records.h"

// One whole quote each. They write every field that the source carries and expect the others zero:
// start from a zeroed record. Prices are copied as they are, NaN and infinities too.

// SHFE and INE. The ExchangeID is "CFFEX", as consumers of this feed have always received it.
void convert_shfe_quote_to_kav_quote(KQC_CShfeFtdcDepthMarketDataField* source,
                                     KAVMarketDepthQuoteData* quote);
void convert_ffex_quote_to_kav_quote(KQC_CFfexFtdcDepthMarketDataField* source,
                                     KAVMarketDepthQuoteData* quote);
// The source tells no time of day: UpdateTime is the date, like TradingDay.
void convert_zce_quote_to_kav_quote(MarketMatchData* source, KAVMarketDepthQuoteData* quote);
// Reads up to the record's byte 263, past the end of the datagram.
void convert_gfex_quote_to_kav_quote(_fldGfexBestQuot* source, KAVMarketDepthQuoteData* quote);

// Part of a quote each, merged into what `quote` holds. A value that is not above zero or too large
// to be meant leaves its field alone. TradingDay and the levels 2 to 5 are never written.

// Adds the trade's volume to Volume.
void convert_lumen_normal_quote_to_kav_quote(lumen_udp_head* head, lumen_udp_normal* body,
                                             KAVMarketDepthQuoteData* quote);
void convert_lumen_summary_quote_to_kav_quote(lumen_udp_head* head, lumen_udp_summary* body,
                                              KAVMarketDepthQuoteData* quote);
