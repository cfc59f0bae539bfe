#include "apps/decode/program.h"

#include <fmt/format.h>  // fmt::print
#include <unistd.h>      // STDOUT_FILENO

#include <csignal>    // std::signal
#include <cstdio>     // stderr
#include <exception>  // std::exception
#include <memory>     // std::unique_ptr
#include <optional>   // std::optional
#include <string>     // std::string
#include <variant>    // std::get_if

#include "apps/decode/capture_file.h"
#include "apps/decode/options.h"
#include "apps/decode/packet_decoder.h"
#include "apps/decode/quote_writer.h"
#include "apps/standard_error.h"
#include "apps/watch/output_stream.h"

namespace kav_decode {
namespace {

using kav_watch::output_stream;
using kav_watch::write_result;

constexpr int k_no_interrupt = -1;  // signals end the program by themselves

int finish(const outcome& end) {
  if (!end.message.empty()) kav_apps::tell(fmt::format("kav-decode: {}\n", end.message));
  return static_cast<int>(end.status);
}

// Nothing: go on. Else the end, a good one when the reader has had enough.
std::optional<outcome> flush(output_stream& stream) {
  const write_result result = stream.flush();
  if (result == write_result::written) return std::nullopt;
  if (result == write_result::reader_gone) return outcome{};
  return outcome{exit_status::failed,
                 fmt::format("cannot write the output: {}; free some space or write elsewhere",
                             stream.error_text())};
}

int print_information(const std::string& text) {
  output_stream stream{STDOUT_FILENO, k_no_interrupt};
  stream.buffer().append(text);
  return finish(flush(stream).value_or(outcome{}));
}

class decode_run {
 public:
  decode_run(const decode_options& options, capture_file& file)
      : m_options(options),
        m_file(file),
        m_stream(STDOUT_FILENO, k_no_interrupt),
        m_writer(options, m_stream.buffer()),
        m_decoder(file.link_type(), options.groups, &m_writer) {}

  outcome run() {
    m_writer.begin();
    outcome end = read_packets();
    if (const std::optional<outcome> stop = m_output_end ? m_output_end : flush(m_stream)) {
      return *stop;
    }
    if (!m_options.quiet) {
      kav_apps::tell(fmt::format("{}", m_decoder.counts().summary(m_writer.quotes())));
    }
    return end;
  }

 private:
  // Until the capture or the output has ended, or enough quotes were found.
  outcome read_packets() {
    captured_packet packet;
    while (!m_writer.is_done() && keep_flowing()) {
      const read_result result = m_file.next(packet);
      if (result == read_result::end) break;
      if (result == read_result::failed) return m_file.failure();
      m_writer.set_time(packet.time);
      m_decoder.take(packet);
    }
    return {};
  }

  // Writes when much is waiting, or before the capture makes us wait. False: nobody takes it.
  bool keep_flowing() {
    const bool waiting = m_stream.buffer().size() > 0;
    if (m_stream.is_full() || (waiting && m_file.is_drained())) m_output_end = flush(m_stream);
    return !m_output_end;
  }

  const decode_options& m_options;
  capture_file& m_file;
  output_stream m_stream;
  quote_writer m_writer;
  packet_decoder m_decoder;
  std::optional<outcome> m_output_end;  // nothing while the output takes what is written
};

int run(int argc, char** argv) {
  const parsed_options parsed = parse_options(argc, argv);
  std::signal(SIGPIPE, SIG_IGN);  // a write tells that the reader is gone
  if (const auto* end = std::get_if<outcome>(&parsed)) return finish(*end);
  if (const auto* text = std::get_if<information>(&parsed)) return print_information(text->text);
  const auto& options = std::get<decode_options>(parsed);
  outcome problem;
  const std::unique_ptr<capture_file> file = capture_file::open(options.path, &problem);
  return finish(file ? decode_run{options, *file}.run() : problem);
}

}  // namespace

int run_program(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    return finish({exit_status::failed, std::string{"unexpected error: "} + error.what()});
  }
}

}  // namespace kav_decode
