// What programs tell people, beside what they produce.
#pragma once

#include <cstdio>  // std::fputs
#include <string>  // std::string

namespace kav_apps {

// A full disk or a reader that has gone ends no program: what cannot be written is left out.
inline void tell(const std::string& text) { static_cast<void>(std::fputs(text.c_str(), stderr)); }

}  // namespace kav_apps
