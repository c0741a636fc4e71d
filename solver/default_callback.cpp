#include "solver/default_callback.h"

#include <iomanip>

namespace zorp {

void write_default_callback_line(std::ostream& out, const Sol& sol, double tts) {
  out.fill('0');
  out << std::fixed << std::setprecision(3) << "TTS = " << tts << "s Energy = " << sol.energy;
  const ModelImpl& m = *sol.model;
  if (!m.native_cons.empty() || m.has_remainder) {
    const ConstraintTally tally = sol_constraint_tally(sol);
    out << " Obj = " << wrapping_sub(sol.energy, tally.penalties);
    if (tally.plain != 0) out << " Viol = " << tally.plain_violated << "/" << tally.plain;
  }
  out << '\n';
}

}  // namespace zorp
