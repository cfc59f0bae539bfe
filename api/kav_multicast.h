// Quotes straight from the exchanges' multicast groups, beside or without a session with a quote
// server: an addition to kav_quote_api.h.
//
//   KqsMulticastInfo groups[2] = {...};  // group, port, local interface, exchange
//   int results[2] = {KAVMulticastNotOpened, KAVMulticastNotOpened};
//   if (StartKAVMulticast(api, groups, 2, &events, results) != KAVMulticastStarted) {
//     for (int result : results) puts(KAVMulticastResultText(result));
//   }
//   ...                                  // OnQuote() on the thread "kav-multicast"
//   StopKAVMulticast(api);               // or DestroyKAVQuoteApi(api), which includes it
//
// Threads:  one thread of the library, "kav-multicast", receives all groups of a client and calls
//           OnQuote() of the event object, one call at a time, with instrument type
//           KavKqsIntrumentTypeMulticast. No lock is held meanwhile. A session's quotes come on
//           another thread, so that an event object that gets both must be safe against two calls
//           at once. The functions below may be called on any thread, in callbacks too, for a
//           client that is not being destroyed.
// Records:  a quote is valid during its callback only. The lumen feed sends parts of quotes; they
//           are merged by symbol over all groups of the client, as long as that lives: Volume is
//           the sum of the trades received. Every datagram of a known length is delivered, for
//           every symbol, in the order of arrival.
// Losses:   UDP loses datagrams. What the system had to drop because the callbacks were slower
//           than the feed is counted by GetKAVMulticastStatistics(); what was lost on the way is
//           seen by nobody.
// Sessions: reception goes on while the session is lost, reconnected, ended by DisConnServer() or
//           never begun.
#pragma once

#include <cstdint>  // std::uint64_t

#include "kav_quote_api.h"  // beside this one, wherever the two are installed

// What became of a request or of one of its groups.
enum KAVMulticastResult : int {
  KAVMulticastStarted = 0,          // datagrams are being received
  KAVMulticastNotOpened = 1,        // nothing wrong with this group, but with another of the list
  KAVMulticastInvalidArgument = 2,  // null or foreign client, null event or list, empty or too long
  KAVMulticastAlreadyStarted = 3,   // the client receives groups already: stop it first
  KAVMulticastUnknownExchange = 4,  // m_ExchangeId is no exchange name
  KAVMulticastInvalidGroup = 5,     // m_GroupIp is no dotted IPv4 multicast address
  KAVMulticastInvalidPort = 6,      // m_GroupPort is 0
  KAVMulticastInvalidLocalIp = 7,   // m_LocalIp is no dotted IPv4 address
  KAVMulticastNoInterface = 8,     // no interface of this host has the address m_LocalIp, or, where
                                   // that is empty, no route leads to the group
  KAVMulticastDuplicateGroup = 9,  // an earlier entry has the same group, port and interface
  KAVMulticastPortInUse = 10,      // another program has the port to itself
  KAVMulticastSystemError = 11,    // the system refused it otherwise; OnLog() tells its reason
  KAVMulticastGroupFailed = 12,    // of a request: the list of results tells which groups and why
};

// What has arrived for one group since StartKAVMulticast().
struct KAVMulticastStatistics {
  std::uint64_t m_Datagrams;  // received; the sum of the next three
  std::uint64_t m_Quotes;     // delivered
  std::uint64_t m_Ignored;    // of a length that no record of the group has
  std::uint64_t m_Refused;    // lumen records without a valid symbol, or beyond 262,144 symbols
  std::uint64_t m_Dropped;    // thrown away by the system for want of buffer, before the library
                              // saw them
};

#define KAV_MULTICAST_MOST_GROUPS 1024u

extern "C" {

// Receives all `count` groups (1 to KAV_MULTICAST_MOST_GROUPS) for `client`, and hands the quotes
// to `event`, which stays the caller's and must live until reception has been stopped. Of an entry:
//   m_GroupIp, m_GroupPort  the group
//   m_LocalIp               address of the local interface that joins it; empty or "0.0.0.0": the
//                           one that the system's routes choose
//   m_LocalPort             not used
//   m_ExchangeId            "SHFE", "INE", "CFFEX", "CZCE", "GFEX", "DCE", "SGE" or "SHZ": which
//                           records are expected; lumen records are recognised in every group, and
//                           "LUMEN" is the name for a group that carries nothing else
// Texts need no NUL when they fill their field. Returns KAVMulticastStarted, or the reason why no
// group at all is received; a line to OnLog() of `event` tells of each group that is wrong. Unless
// null, `results` gets one KAVMulticastResult for each group: KAVMulticastNotOpened for all with
// KAVMulticastAlreadyStarted, and nothing with KAVMulticastInvalidArgument. Waits for a reception
// that is being stopped; inside a callback of that very reception the result is
// KAVMulticastAlreadyStarted.
int StartKAVMulticast(KAVQuoteApi* client, const KqsMulticastInfo* groups, unsigned count,
                      KAVQuoteEvent* event, int* results);

// Leaves all groups. When it returns no callback comes any more: it waits for one in progress, so
// do not hold a lock that your callback takes. Inside a callback of the reception itself it returns
// at once, and that callback is the last. Does nothing when nothing is received.
void StopKAVMulticast(KAVQuoteApi* client);

// Counts of the group at `index` (from 0) of the list that is being received. False, and
// `statistics` is left alone: there is none.
bool GetKAVMulticastStatistics(KAVQuoteApi* client, unsigned index,
                               KAVMulticastStatistics* statistics);

// One line in English for a KAVMulticastResult; constant, never null.
const char* KAVMulticastResultText(int result);
}
