// The command as a whole.
#ifndef KELOTLSCTL_COMMAND_LINE_H
#define KELOTLSCTL_COMMAND_LINE_H

namespace kelotlsctl {

/// Does what the arguments ask for, the program's name being the first; the result is the exit
/// code. Lets through only what the standard library throws where nothing can be done, as for no
/// memory.
int run_program(int argc, char** argv);

}  // namespace kelotlsctl

#endif
