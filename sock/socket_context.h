// Where the socket classes send their log lines, when standard output is not the place.
#pragma once

namespace VORLAN {
namespace SOCK {

class socket_context {
 public:
  virtual ~socket_context();
  // One line of `length` characters, most with their own line end. On any thread, also on two at
  // once; the object stays its owner's and outlives the sockets that use it. It returns soon and
  // deletes none of them.
  virtual void log_text(const char* text, int length) = 0;
};

// Writes `text` to the context, or to standard output when there is none; leaves it out when that
// takes nothing, such as a full pipe.
void write_log_text(socket_context* context, const char* text);

}  // namespace SOCK
}  // namespace VORLAN
