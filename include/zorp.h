/* The zorp C interface: polynomial optimisation over binary and spin variables. */
#ifndef ZORP_H
#define ZORP_H

#include "zorp/common.h"
#include "zorp/var.h"
#include "zorp/term.h"
#include "zorp/expr.h"
#include "zorp/int_var.h"
#include "zorp/cons.h"
#include "zorp/sol.h"
#include "zorp/cons_item.h"
#include "zorp/model.h"
#include "zorp/search_result.h"
#include "zorp/vell_solver.h"
#include "zorp/sysinfo.h"

#endif
