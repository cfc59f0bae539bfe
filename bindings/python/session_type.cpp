#include "bindings/python/session_type.h"

#include <pybind11/numpy.h>  // py::array
#include <pybind11/stl.h>    // std::optional, std::vector, std::map

#include <algorithm>  // std::min
#include <chrono>     // std::chrono::steady_clock
#include <memory>     // std::unique_ptr
#include <optional>   // std::optional
#include <string>     // std::string, std::u32string
#include <vector>     // std::vector

#include "bindings/python/python_text.h"
#include "bindings/python/quote_type.h"
#include "bindings/python/session.h"

namespace kav_python {
namespace {

namespace py = pybind11;
using record = KAVMarketDepthQuoteData;
using steady = std::chrono::steady_clock;

constexpr std::chrono::milliseconds k_signal_slice{50};  // longest delay until Ctrl-C is seen
constexpr double k_longest_wait_s = 1e8;                 // some three years

// The library's threads, which may hold a lock at the moment of the fork, are not in the child.
void need_own_process(const session& s) {
  if (s.is_of_this_process()) return;
  const py::object error = py::module_::import("kavquote.errors").attr("ForkedError");
  PyErr_SetNone(error.ptr());
  throw py::error_already_set();
}

steady_time limit_of(std::optional<double> timeout_s) {
  const double asked = timeout_s.value_or(k_longest_wait_s);
  const double seconds = asked > 0 ? std::min(asked, k_longest_wait_s) : 0;  // NaN is none
  return steady::now() +
         std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(seconds));
}

// Waits without the interpreter lock, and lets Python handle its signals meanwhile.
template <class Wait>
bool wait_in_slices(steady_time limit, Wait wait) {
  while (true) {
    const steady_time now = steady::now();
    {
      const py::gil_scoped_release others_may_run;
      if (wait(std::min(limit, now + k_signal_slice))) return true;
    }
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    if (now >= limit) return false;
  }
}

bool wait_for_quotes(session& s, std::optional<double> timeout_s) {
  need_own_process(s);
  quote_ring& quotes = s.events().quotes();
  return wait_in_slices(limit_of(timeout_s),
                        [&](steady_time limit) { return quotes.wait_until(limit); });
}

bool wait_for_change(session& s, std::uint64_t seen, std::optional<double> timeout_s) {
  return wait_in_slices(limit_of(timeout_s),
                        [&](steady_time limit) { return s.events().wait_for_change(seen, limit); });
}

// Takes one quote at a time: none is kept back for a later call, so that nothing is lost when a
// loop over quotes is left.
std::optional<record> next_quote(session& s, std::optional<double> timeout_s) {
  need_own_process(s);
  record quote;
  quote_ring& quotes = s.events().quotes();
  bool got = quotes.take(&quote, 1) == 1;
  if (!got) {
    wait_in_slices(limit_of(timeout_s), [&](steady_time slice) {
      if (!quotes.wait_until(slice)) return false;
      const bool ended = quotes.closed();  // asked first: what arrived before the end is taken
      got = quotes.take(&quote, 1) == 1;
      return got || ended;
    });
  }
  return got ? std::optional<record>{quote} : std::nullopt;
}

std::vector<py::ssize_t> shape_of(std::size_t count) { return {static_cast<py::ssize_t>(count)}; }

// One copy, from the ring into memory that the array owns.
py::array take_batch(session& s, std::size_t most) {
  need_own_process(s);
  static const py::handle dtype = quote_dtype().release();  // for the life of the process
  quote_ring& quotes = s.events().quotes();
  const std::size_t count = std::min(most, quotes.size());
  py::array batch(py::reinterpret_borrow<py::dtype>(dtype), shape_of(count));
  auto* const records = static_cast<record*>(batch.mutable_data());
  std::size_t taken = 0;
  {
    const py::gil_scoped_release others_may_run;
    taken = quotes.take(records, count);
  }
  if (taken < count) batch.resize(shape_of(taken));
  return batch;
}

py::list take_log(session& s) {
  std::vector<log_line> lines;
  {
    const py::gil_scoped_release others_may_run;
    lines = s.events().take_log();
  }
  py::list result;
  for (const log_line& line : lines) {
    result.append(py::make_tuple(static_cast<int>(line.level), python_text(line.text)));
  }
  return result;
}

// The server's one-byte code as a character, and back.
py::str type_text(KavKqsIntrumentType type) {
  return py::reinterpret_steal<py::str>(PyUnicode_FromOrdinal(static_cast<unsigned char>(type)));
}

KavKqsIntrumentType type_of(const std::u32string& text) {
  if (text.size() != 1 || text[0] > 0xff) {
    throw py::value_error("an instrument type is one character up to U+00FF");
  }
  return static_cast<KavKqsIntrumentType>(static_cast<signed char>(text[0]));
}

py::dict symbols(session& s) {
  py::dict result;
  for (const auto& [name, type] : s.events().symbols()) result[python_text(name)] = type_text(type);
  return result;
}

void register_symbol(session& s, const std::u32string& type, const std::string& symbol) {
  const KavKqsIntrumentType code = type_of(type);
  const py::gil_scoped_release others_may_run;
  s.register_symbol(code, symbol);
}

void unregister_symbol(session& s, const std::u32string& type, const std::string& symbol) {
  const KavKqsIntrumentType code = type_of(type);
  const py::gil_scoped_release others_may_run;
  s.unregister_symbol(code, symbol);
}

std::string state_of(const session_facts& facts) {
  return std::string{kav_watch::state_text(facts.state)};
}

void add_facts(py::module_& module) {
  py::class_<session_facts>(module, "Facts", "What is known about a session at one moment.")
      .def_readonly("connected", &session_facts::connected)
      .def_readonly("login_accepted", &session_facts::login_accepted)
      .def_property_readonly("login_reason",
                             [](const session_facts& f) { return python_text(f.login_reason); })
      .def_readonly("refused_by_server", &session_facts::refused_by_server)
      .def_readonly("disconnected_before_login", &session_facts::disconnected_before_login)
      .def_property_readonly("state", &state_of)
      .def_readonly("reconnections", &session_facts::reconnections)
      .def_readonly("relogin_refused", &session_facts::relogin_refused)
      .def_readonly("symbol_lists", &session_facts::symbol_lists);
}

void add_registration(py::module_& module) {
  py::enum_<registration>(module, "Registration", "The server's last answer for one symbol.")
      .value("UNKNOWN", registration::unknown)
      .value("REGISTERED", registration::registered)
      .value("REFUSED", registration::refused);
}

using session_class = py::class_<session, std::unique_ptr<session, session_deleter>>;
using released = py::call_guard<py::gil_scoped_release>;

std::unique_ptr<session, session_deleter> make_session(const std::string& address,
                                                       unsigned short port, std::size_t capacity,
                                                       bool wait_when_full) {
  const when_full policy = wait_when_full ? when_full::wait : when_full::drop_oldest;
  return std::unique_ptr<session, session_deleter>(new session(address, port, capacity, policy));
}

void add_requests(session_class& type) {
  type.def(py::init(&make_session), py::arg("address"), py::arg("port"), py::arg("capacity"),
           py::arg("wait_when_full"))
      .def("connect", &session::connect, released())
      .def("login", &session::login, py::arg("user"), py::arg("password"), released())
      .def("query_symbols", &session::query_symbols, released())
      .def("register_symbol", &register_symbol, py::arg("type"), py::arg("symbol"))
      .def("unregister_symbol", &unregister_symbol, py::arg("type"), py::arg("symbol"))
      .def("close", &session::close, released())
      .def("is_of_this_process", &session::is_of_this_process);
}

void add_answers(session_class& type) {
  type.def("facts", [](session& s) { return s.events().facts(); })
      .def("changes", [](session& s) { return s.events().changes(); })
      .def("wait_for_change", &wait_for_change, py::arg("seen"), py::arg("timeout"))
      .def("symbols", &symbols)
      .def(
          "registration",
          [](session& s, const std::string& symbol) { return s.events().registration_of(symbol); },
          py::arg("symbol"))
      .def(
          "forget_answer",
          [](session& s, const std::string& symbol) { s.events().forget_answer(symbol); },
          py::arg("symbol"))
      .def("take_log", &take_log);
}

void add_quotes(session_class& type) {
  type.def("next_quote", &next_quote, py::arg("timeout"))
      .def("take_batch", &take_batch, py::arg("most"))
      .def("wait_for_quotes", &wait_for_quotes, py::arg("timeout"))
      .def("arm", [](session& s) { return s.events().quotes().arm(); })
      .def("clear_fd", [](session& s) { s.events().quotes().clear_fd(); })
      .def_property_readonly("fd", [](session& s) { return s.events().quotes().fd(); })
      .def_property_readonly("ended", [](session& s) { return s.events().quotes().closed(); })
      .def_property_readonly("waiting", [](session& s) { return s.events().quotes().size(); })
      .def_property_readonly("received", [](session& s) { return s.events().quotes().received(); })
      .def_property_readonly("dropped", [](session& s) { return s.events().quotes().dropped(); });
}

}  // namespace

void add_session_type(py::module_& module) {
  add_facts(module);
  add_registration(module);
  session_class type(module, "Session");
  add_requests(type);
  add_answers(type);
  add_quotes(type);
}

}  // namespace kav_python
