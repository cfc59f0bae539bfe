// What the digest of a secret leaves in memory.
#include <gmock/gmock.h>
#include <unistd.h>  // getpid

#include <atomic>  // std::atomic
#include <thread>  // std::thread

#include "tests/support/memory_search.h"
#include "tests/support/process_view.h"
#include "tools/md5.h"

namespace {

using kav_test::hidden_text;
using testing::IsEmpty;
using testing::Not;

// Searches while a thread, which has just done `act(text)` and wiped the text, is still there: its
// stack shows what `act` left.
template <class ACT>
std::vector<std::string> places_after(const hidden_text& secret, ACT act) {
  std::atomic<bool> done{false}, searched{false};
  std::thread actor([&] {
    char text[hidden_text::k_length + 1];
    secret.reveal(text);
    kav_test::run_deep([&] { act(static_cast<const char*>(text)); });
    kav_test::wipe_text(text, sizeof(text));
    done = true;
    while (!searched) {  // calls nothing, which would overwrite the stack
    }
  });
  while (!done) std::this_thread::yield();
  std::vector<std::string> places = secret.places_in(::getpid());
  searched = true;
  actor.join();
  return places;
}

TEST(md5_secret, a_copy_that_stays_is_found) {
  if (kav_test::k_sanitized) GTEST_SKIP() << "sanitizers keep more memory than can be searched";
  const hidden_text secret;
  std::string copy;
  EXPECT_THAT(places_after(secret, [&](const char* text) { copy = text; }), Not(IsEmpty()));
}

TEST(md5_secret, encrypt_md5_leaves_no_copy_of_its_input) {
  if (kav_test::k_sanitized) GTEST_SKIP() << "sanitizers keep more memory than can be searched";
  const hidden_text secret;
  char digest[33] = {};
  const auto encrypt = [&](const char* text) {
    VORLAN::TOOLS::encrypt_md5(text, hidden_text::k_length, digest);
  };
  EXPECT_THAT(places_after(secret, encrypt), IsEmpty());
  EXPECT_NE('\0', digest[0]);
}

}  // namespace
