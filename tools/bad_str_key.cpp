#include "tools/bad_str_key.h"

namespace VORLAN {
namespace TOOLS {

bad_str_key::bad_str_key(const std::string& message) : std::out_of_range(message) {}

// Defined here, so that every library and program shares one type to catch.
bad_str_key::~bad_str_key() = default;

}  // namespace TOOLS
}  // namespace VORLAN
