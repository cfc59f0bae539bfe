// The toolkit's one exception.
#pragma once

#include <stdexcept>  // out_of_range
#include <string>

namespace VORLAN {
namespace TOOLS {

// Thrown by data_queue when the front of an empty queue is asked for.
class bad_str_key : public std::out_of_range {
 public:
  explicit bad_str_key(const std::string& message);
  ~bad_str_key() override;

  int code() const { return m_code; }

 private:
  int m_code = -1;
};

}  // namespace TOOLS
}  // namespace VORLAN
