// The packed file: whole after each save, and at every moment between two of them.
#include <gtest/gtest.h>
#include <sys/resource.h>  // setrlimit

#include <cerrno>   // errno
#include <csignal>  // std::signal

#include "apps/record/gzip_file.h"
#include "record_files.h"

namespace kav_record_test {

using kav_record::gzip_file;

std::string lines(int from, int to) {
  std::string text;
  for (int i = from; i < to; ++i) text += "line " + std::to_string(i * 7919) + "\n";
  return text;
}

TEST(record_gzip_file, a_new_file_is_whole_and_empty) {
  const test_folder folder;
  gzip_file file;
  ASSERT_TRUE(file.create(folder / "a.gz"));
  EXPECT_EQ("", unpacked(folder / "a.gz"));
  EXPECT_TRUE(gzip_accepts(folder / "a.gz"));
}

TEST(record_gzip_file, it_holds_all_that_was_saved_and_nothing_else) {
  const test_folder folder;
  gzip_file file;
  ASSERT_TRUE(file.create(folder / "a.gz"));
  std::string expected;
  for (int i = 0; i < 50; ++i) {
    file.append(lines(i * 100, i * 100 + i));
    EXPECT_EQ(expected, unpacked(folder / "a.gz"));
    ASSERT_TRUE(file.save());
    expected += lines(i * 100, i * 100 + i);
    EXPECT_EQ(expected, unpacked(folder / "a.gz"));
    EXPECT_EQ(std::filesystem::file_size(folder / "a.gz"), file.bytes());
  }
  file.append("the end\n");
  ASSERT_TRUE(file.close());
  EXPECT_EQ(expected + "the end\n", unpacked(folder / "a.gz"));
  EXPECT_TRUE(gzip_accepts(folder / "a.gz"));
}

TEST(record_gzip_file, a_piece_that_was_written_in_part_changes_nothing) {
  const test_folder folder;
  gzip_file file;
  ASSERT_TRUE(file.create(folder / "a.gz"));
  file.append(lines(0, 1000));
  ASSERT_TRUE(file.save());
  const std::string before = file_bytes(folder / "a.gz");
  file.append(lines(1000, 1300));
  ASSERT_TRUE(file.save());
  const std::string after = file_bytes(folder / "a.gz");
  ASSERT_GT(after.size(), before.size() + 100);
  for (std::size_t cut = before.size(); cut <= after.size(); ++cut) {
    write_file(folder / "cut.gz", before + after.substr(before.size(), cut - before.size()));
    ASSERT_EQ(lines(0, 1000), unpacked(folder / "cut.gz")) << cut;
  }
}

TEST(record_gzip_file, a_file_that_is_there_is_never_touched) {
  const test_folder folder;
  write_file(folder / "a.gz", "precious");
  gzip_file file;
  EXPECT_FALSE(file.create(folder / "a.gz"));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_EQ("precious", file_bytes(folder / "a.gz"));
}

TEST(record_gzip_file, what_finds_no_room_leaves_the_file_as_it_was_saved) {
  const test_folder folder;
  gzip_file file;
  ASSERT_TRUE(file.create(folder / "a.gz"));
  file.append(lines(0, 1000));
  ASSERT_TRUE(file.save());
  rlimit old{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &old));
  const rlimit small{file.bytes() + 50, old.rlim_max};
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &small));
  file.append(lines(1000, 2000));
  EXPECT_FALSE(file.save());
  EXPECT_EQ(EFBIG, errno);
  ::setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(lines(0, 1000), unpacked(folder / "a.gz"));
  EXPECT_EQ(std::filesystem::file_size(folder / "a.gz"), file.bytes());
}

}  // namespace kav_record_test
