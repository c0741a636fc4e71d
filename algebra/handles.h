// Conversions between the opaque handles of the C interface and the records behind them.
#pragma once

#include "algebra/expr.h"
#include "algebra/term.h"
#include "zorp/common.h"

namespace zorp {

inline TermImpl* impl(zorp_term* t) { return reinterpret_cast<TermImpl*>(t); }
inline const TermImpl* impl(const zorp_term* t) { return reinterpret_cast<const TermImpl*>(t); }
inline zorp_term* handle(TermImpl* t) { return reinterpret_cast<zorp_term*>(t); }
inline const zorp_term* handle(const TermImpl* t) { return reinterpret_cast<const zorp_term*>(t); }

inline ExprImpl* impl(zorp_expr* e) { return reinterpret_cast<ExprImpl*>(e); }
inline const ExprImpl* impl(const zorp_expr* e) { return reinterpret_cast<const ExprImpl*>(e); }
inline zorp_expr* handle(ExprImpl* e) { return reinterpret_cast<zorp_expr*>(e); }

}  // namespace zorp
