// The line printed at each new best when "enable_default_callback" is on.
#pragma once

#include <ostream>

#include "model/sol.h"

namespace zorp {

// "TTS = <s.sss>s Energy = <e>", then " Obj = <e - penalties>" when the model has declared
// constraints and " Viol = <violated>/<count>" over its ordinary ones, then a line end.
// Leaves the stream in fixed form with 3 decimals and fill "0", as the engine's log expects.
void write_default_callback_line(std::ostream& out, const Sol& sol, double tts);

}  // namespace zorp
