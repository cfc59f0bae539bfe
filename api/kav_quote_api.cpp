#include "api/kav_quote_api.h"

#include "client/ckqc_tcp.h"

KAVQuoteApi* CreateKAVQuoteApi() { return new Ckqc_tcp; }

void DestroyKAVQuoteApi(KAVQuoteApi* api) { delete api; }
