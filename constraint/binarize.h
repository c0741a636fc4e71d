// Replacing native integer atoms by their binary encodings.
#pragma once

#include "algebra/expr.h"

namespace zorp {

// A new expression in which every atom is lo + sum of c_k * bit_k; not simplified, tag none.
ExprImpl expr_binarize(const ExprImpl& e);

// True when a term of `e` holds an atom (an empty inline slot does not count).
bool expr_has_int_atom(const ExprImpl& e);

}  // namespace zorp
