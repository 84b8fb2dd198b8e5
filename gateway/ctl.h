#pragma once

namespace gw {

// tlsc-gateway ctl VERB: the operator's end of the control socket. argv[0] is "ctl". Returns the exit status
// (common/exit_code.h).
int run_ctl(int argc, const char *const *argv);

}  // namespace gw
