/* The zorp C interface: polynomial optimisation over binary and spin variables. */
#ifndef ZORP_H
#define ZORP_H

#include "zorp/common.h"
#include "zorp/var.h"
#include "zorp/term.h"
#include "zorp/expr.h"

#endif
