#include "sock/socket_context.h"

#include <cstdio>   // printf
#include <cstring>  // strlen

namespace VORLAN {
namespace SOCK {

socket_context::~socket_context() = default;

void write_log_text(socket_context* context, const char* text) {
  if (text == nullptr) return;
  if (context != nullptr) {
    context->log_text(text, static_cast<int>(std::strlen(text)));
  } else {
    std::printf("%s", text);
  }
}

}  // namespace SOCK
}  // namespace VORLAN
