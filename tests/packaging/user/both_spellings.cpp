// The headers by either of their paths, which are the same file.
#include <kavquote/api/kav_multicast.h>

#include "api/kav_multicast.h"
#include "api/kav_quote_api.h"

int main() {
  DestroyKAVQuoteApi(CreateKAVQuoteApi());
  return sizeof(KAVMarketDepthQuoteData) == 345 ? 0 : 1;
}
