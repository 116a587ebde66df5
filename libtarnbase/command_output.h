// The captured standard output of a command, shared by the shell runner
// (tarn_shell.cpp) and the program runner (tarn_process.cpp).
#ifndef TARNBASE_COMMAND_OUTPUT_H
#define TARNBASE_COMMAND_OUTPUT_H

#include <stddef.h>

namespace tarnbase {

// Reads fd to its end, however long, so that the command never blocks on a
// full pipe; keeps the first out_len - 1 bytes in out, drops the line ends
// at the end of what was kept (any run of '\n' and '\r') and terminates
// out. With a null out or an out_len of 0 everything is read and dropped.
void read_command_output(int fd, char *out, size_t out_len);

}  // namespace tarnbase

#endif
