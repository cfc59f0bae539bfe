// Takes the password out of the places where other programs of the machine could read it.
#pragma once

#include <optional>  // std::optional
#include <string>    // std::string

namespace kav_watch {

inline constexpr char k_password_variable[] = "KAV_PASSWORD";

// The password of the environment, which is overwritten there and removed. Nothing when unset.
// Only while the process has one thread.
std::optional<std::string> take_password_from_environment();

// Overwrites the values of "--password X" and "--password=X" in the argument memory, which is what
// the process list shows. Best effort: it was readable until now.
void wipe_password_arguments(int argc, char** argv);

// Overwrites the text in a way that the compiler does not leave out.
void wipe(std::string& secret);

}  // namespace kav_watch
