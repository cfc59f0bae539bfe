// kav-plot as a program: its pictures, and what it says when there is none.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>  // std::getenv, setenv

#include "record_files.h"
#include "watch_process.h"

namespace kav_plot_test {

using kav_record_test::file_bytes;
using kav_record_test::test_folder;
using kav_watch_test::child_options;
using kav_watch_test::child_process;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// A night and a morning of two symbols.
std::string ticks() {
  std::string text =
      "TradingDay,InstrumentID,ExchangeID,LastPrice,BidPrice1,AskPrice1,Volume,OpenInterest,"
      "UpdateTime,UpdateMillisec\n";
  for (int i = 0; i < 600; ++i) {
    const int minute = (i < 300 ? 21 * 60 : 9 * 60) + i % 300 / 5;
    for (const char* symbol : {"rb2610", "o'ne\"2"}) {
      text += fmt::format("20261124,{},SHFE,{},{},{},{},{},{:02}:{:02}:{:02},0\n", symbol,
                          3500 + i % 17, 3499 + i % 17, 3501 + i % 17, i, 9000 - i, minute / 60,
                          minute % 60, i % 5 * 12);
    }
  }
  return text;
}

class plot_program_test : public testing::Test {
 protected:
  plot_program_test() {
    kav_record_test::write_packed(m_folder / "t.csv.gz", ticks());
    kav_record_test::write_file(m_folder / "t.csv", ticks());
  }

  std::string run(std::vector<std::string> arguments, int status) {
    child_options options;
    options.arguments = std::move(arguments);
    child_process child{options};
    EXPECT_EQ(status, child.wait()) << child.errors();
    return child.output() + child.errors();
  }
  static bool have_gnuplot() {
    // NOLINTNEXTLINE(cert-env33-c): the test's own words
    return std::system("command -v gnuplot >/dev/null 2>&1") == 0;
  }
  // Four bytes of the file, the highest first.
  static unsigned number_at(const std::string& bytes, std::size_t place) {
    unsigned number = 0;
    for (std::size_t i = place; i < place + 4; ++i) {
      number = number << 8 | static_cast<unsigned char>(bytes.at(i));
    }
    return number;
  }

  test_folder m_folder;
};

TEST_F(plot_program_test, a_png_is_whole_and_of_its_size) {
  if (!have_gnuplot()) GTEST_SKIP() << "no gnuplot";
  EXPECT_EQ("", run({m_folder / "t.csv.gz", "rb2610", "-o", m_folder / "a.png"}, 0));
  const std::string bytes = file_bytes(m_folder / "a.png");
  EXPECT_THAT(bytes, StartsWith("\x89PNG\r\n\x1a\n"));
  EXPECT_THAT(bytes, EndsWith(std::string{"IEND\xae\x42\x60\x82", 8}));
  EXPECT_EQ(1100u, number_at(bytes, 16));
  EXPECT_EQ(720u, number_at(bytes, 20));
  EXPECT_THAT(m_folder.names(), ElementsAre("a.png", "t.csv", "t.csv.gz"));
}

TEST_F(plot_program_test, an_svg_holds_what_a_reader_needs) {
  if (!have_gnuplot()) GTEST_SKIP() << "no gnuplot";
  EXPECT_EQ("", run({m_folder / "t.csv", "rb2610", "o'ne\"2", "-o", m_folder / "a.svg", "--size",
                     "1600x900"},
                    0));
  const std::string text = file_bytes(m_folder / "a.svg");
  EXPECT_THAT(text,
              AllOf(StartsWith("<?xml"), EndsWith("</svg>\n\n"), HasSubstr("width=\"1600\"")));
  for (const char* word :
       {"rb2610 SHFE, trading day 20261124: price", "ask", "bid", "last", "traded, lots in 1 min",
        "open interest, lots", "time of the quotes, HH:MM", "21:00", "09:00", "09:30"}) {
    EXPECT_THAT(text, HasSubstr(word));
  }
}

TEST_F(plot_program_test, the_largest_double_is_no_value_as_some_servers_mean_it) {
  if (!have_gnuplot()) GTEST_SKIP() << "no gnuplot";
  kav_record_test::write_file(
      m_folder / "odd.csv",
      ticks() + "20261124,rb2610,SHFE,3500,3499,1.7976931348623157e+308,700,9000,10:00:00,0\n");
  EXPECT_EQ("", run({m_folder / "odd.csv", "rb2610", "-o", m_folder / "odd.svg"}, 0));
  EXPECT_THAT(file_bytes(m_folder / "odd.svg"), HasSubstr("rb2610"));
}

TEST_F(plot_program_test, a_symbol_that_is_missing_is_told_with_those_that_are_there) {
  EXPECT_EQ("kav-plot: " + m_folder /
                               "t.csv has no quotes of IF2612; it has those of o'ne\"2, "
                               "rb2610\n",
            run({m_folder / "t.csv", "rb2610", "IF2612", "-o", m_folder / "a.png"}, 4));
  EXPECT_THAT(m_folder.names(), ElementsAre("t.csv", "t.csv.gz"));
}

TEST_F(plot_program_test, the_list_tells_the_symbols_and_their_quotes) {
  EXPECT_EQ("o'ne\"2\t600\nrb2610\t600\n", run({m_folder / "t.csv.gz", "--list"}, 0));
}

TEST_F(plot_program_test, a_file_that_cannot_be_read_is_told_with_the_reason) {
  const std::string picture = m_folder / "a.png";
  EXPECT_EQ("kav-plot: /nonexistent: No such file or directory\n",
            run({"/nonexistent", "a", "-o", picture}, 3));
  kav_record_test::write_file(m_folder / "text", "no ticks\n");
  EXPECT_THAT(run({m_folder / "text", "a", "-o", picture}, 3), HasSubstr(":1: no column "));
  std::string damaged = file_bytes(m_folder / "t.csv.gz");
  for (std::size_t i = 100; i < 200; ++i) damaged[i] = static_cast<char>(damaged[i] ^ 0x55);
  kav_record_test::write_file(m_folder / "damaged.gz", damaged);
  EXPECT_THAT(run({m_folder / "damaged.gz", "rb2610", "-o", picture}, 3),
              StartsWith("kav-plot: " + m_folder / "damaged.gz:"));
}

TEST_F(plot_program_test, of_a_file_that_was_cut_off_the_begin_is_used_and_told) {
  const std::string whole = file_bytes(m_folder / "t.csv.gz");
  kav_record_test::write_file(m_folder / "cut.gz", whole.substr(0, whole.size() / 2));
  EXPECT_THAT(run({m_folder / "cut.gz", "--list"}, 0),
              AllOf(HasSubstr("rb2610\t"),
                    HasSubstr(": the packed file ends too early; what came before is used")));
}

TEST_F(plot_program_test, without_gnuplot_it_tells_what_to_install) {
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", "/nonexistent", 1);
  EXPECT_EQ(
      "kav-plot: cannot start gnuplot: No such file or directory; install it, on Debian with: "
      "apt-get install gnuplot-nox\n",
      run({m_folder / "t.csv", "rb2610", "-o", m_folder / "a.png"}, 5));
  ::setenv("PATH", path.c_str(), 1);
  EXPECT_THAT(m_folder.names(), ElementsAre("t.csv", "t.csv.gz"));
}

TEST_F(plot_program_test, a_picture_that_cannot_be_written_ends_it_with_6) {
  EXPECT_EQ(
      "kav-plot: cannot write /nonexistent/a.png: No such file or directory; give --output a "
      "place that can be written to\n",
      run({m_folder / "t.csv", "rb2610", "-o", "/nonexistent/a.png"}, 6));
}

TEST_F(plot_program_test, bad_options_end_it_with_2_and_one_line) {
  const std::string file = m_folder / "t.csv", picture = m_folder / "a.png";
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{},
                                             {file},
                                             {file, "a"},
                                             {file, "a", "-o", "a.pdf"},
                                             {file, "a", "-o", ".png"},
                                             {file, "a", "a", "-o", picture},
                                             {file, "a", "b", "c", "d", "e", "-o", picture},
                                             {file, "a", "-o", picture, "--size", "100"},
                                             {file, "a", "-o", picture, "--size", "100x99999"},
                                             {file, "a", "-o", picture, "--gap", "nan"},
                                             {file, "a", "-o", picture, "--bogus"}}) {
    const std::string text = run(arguments, 2);
    EXPECT_THAT(
        text, AllOf(StartsWith("kav-plot: "), EndsWith("; kav-plot --help shows how to use it\n")));
    EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << text;
  }
}

TEST_F(plot_program_test, help_and_version_go_to_standard_output) {
  const std::string help = run({"--help"}, 0);
  for (const char* word : {"--output", "--list", "--gap", "--size", "MINUTES", "Exit statuses"}) {
    EXPECT_THAT(help, HasSubstr(word));
  }
  EXPECT_THAT(run({"--version"}, 0), StartsWith("kav-plot "));
}

}  // namespace kav_plot_test
