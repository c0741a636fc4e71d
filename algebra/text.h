// Text forms of terms and expressions, reused inside other families' text.
#pragma once

#include <string>

#include "algebra/expr.h"
#include "algebra/term.h"

namespace zorp {

// Appends "3*x*y", "-x", "7" for one term.
void append_term_text(std::string& out, const TermImpl& t);
// Appends "3 +2*x -y"; "0" for the empty expression.
void append_expr_text(std::string& out, const ExprImpl& e);
// Appends a constant in decimal, at the energy type's width.
void append_energy(std::string& out, energy_t value);

}  // namespace zorp
