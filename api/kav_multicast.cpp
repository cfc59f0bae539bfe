#include "api/kav_multicast.h"

#include "client/ckqc_tcp.h"

namespace {

// Null for null, and for an object that is none of this library's.
Ckqc_tcp* client_of(KAVQuoteApi* api) { return dynamic_cast<Ckqc_tcp*>(api); }

}  // namespace

int StartKAVMulticast(KAVQuoteApi* client, const KqsMulticastInfo* groups, unsigned count,
                      KAVQuoteEvent* event, int* results) {
  Ckqc_tcp* const own = client_of(client);
  if (own == nullptr) return KAVMulticastInvalidArgument;
  return own->start_multicast(groups, count, event, results);
}

void StopKAVMulticast(KAVQuoteApi* client) {
  if (Ckqc_tcp* const own = client_of(client)) own->stop_multicast();
}

bool GetKAVMulticastStatistics(KAVQuoteApi* client, unsigned index,
                               KAVMulticastStatistics* statistics) {
  Ckqc_tcp* const own = client_of(client);
  return own != nullptr && own->multicast_statistics(index, statistics);
}

const char* KAVMulticastResultText(int result) {
  switch (result) {
    case KAVMulticastStarted:
      return "received";
    case KAVMulticastNotOpened:
      return "not received, because of another group";
    case KAVMulticastInvalidArgument:
      return "client, event object or list of groups missing, or the list too long";
    case KAVMulticastAlreadyStarted:
      return "the client receives groups already; stop it first";
    case KAVMulticastUnknownExchange:
      return "unknown exchange";
    case KAVMulticastInvalidGroup:
      return "no IPv4 multicast address (224.0.0.0 to 239.255.255.255)";
    case KAVMulticastInvalidPort:
      return "port 0";
    case KAVMulticastInvalidLocalIp:
      return "the local address is no dotted IPv4 address";
    case KAVMulticastNoInterface:
      return "no interface has the local address, or no route leads to the group";
    case KAVMulticastDuplicateGroup:
      return "the same group, port and interface as an earlier entry";
    case KAVMulticastPortInUse:
      return "another program has the port to itself";
    case KAVMulticastSystemError:
      return "refused by the system";
    case KAVMulticastGroupFailed:
      return "at least one group could not be received";
    default:
      return "unknown result";
  }
}
