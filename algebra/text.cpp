#include "algebra/text.h"

#include <charconv>

#include "algebra/handles.h"
#include "frame/var_registry.h"
#include "zorp/expr.h"
#include "zorp/term.h"

namespace zorp {

namespace {

template <class Integer>
void append_integer(std::string& out, Integer value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

}  // namespace

void append_energy(std::string& out, energy_t value) {
  if constexpr (sizeof(energy_t) <= sizeof(long long)) {
    append_integer(out, static_cast<long long>(value));
  } else {
    // Wider than any standard integer: digits by hand, magnitude as unsigned.
    using U = std::make_unsigned_t<energy_t>;
    U magnitude = value < 0 ? U(0) - U(value) : U(value);
    char digits[48];
    int n = 0;
    do {
      digits[n++] = static_cast<char>('0' + static_cast<int>(magnitude % 10));
      magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) out += '-';
    while (n > 0) out += digits[--n];
  }
}

void append_term_text(std::string& out, const TermImpl& t) {
  const unsigned degree = t.vars.degree();
  if (degree == 0) {
    append_integer(out, t.coefficient);
    return;
  }
  if (t.coefficient == -1) {
    out += '-';
  } else if (t.coefficient != 1) {
    append_integer(out, t.coefficient);
    out += '*';
  }
  for (unsigned k = 0; k < degree; ++k) {
    // No "*" right after a "-": meant for the sign, it also applies to a name ending in "-".
    if (k > 0 && out.back() != '-') out += '*';
    out += literal_name(t.vars.slot[k]);
  }
}

void append_expr_text(std::string& out, const ExprImpl& e) {
  const bool has_constant = e.constant != 0;
  if (has_constant) append_energy(out, e.constant);
  bool first = !has_constant;
  if (first && e.term_count() == 0) {
    out += '0';
    return;
  }
  e.for_each_term([&](const TermImpl& t) {
    if (!first) out += t.coefficient < 0 ? " " : " +";
    first = false;
    append_term_text(out, t);
  });
}

}  // namespace zorp

using namespace zorp;

extern "C" {

const char* zorp_term_str(const zorp_term* t) {
  // The renderer's scratch is kept apart from the result so that each call allocates
  // nothing once both have grown.
  thread_local std::string scratch;
  thread_local std::string text;
  scratch.clear();
  append_term_text(scratch, *impl(t));
  text.assign(scratch);
  return text.c_str();
}

const char* zorp_expr_str(const zorp_expr* e) {
  thread_local std::string text;
  text.clear();
  append_expr_text(text, *impl(e));
  return text.c_str();
}

}  // extern "C"
