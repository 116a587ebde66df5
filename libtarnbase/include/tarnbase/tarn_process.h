/* tarn_process.h -- questions about processes. */
#ifndef TARN_PROCESS_H
#define TARN_PROCESS_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* The calling process's pid. */
TARNBASE_API int tarn_process_get_pid(void);

/* Non-zero when a live process with this pid exists, 0 otherwise (pid 0 or
 * less, no such process, or a zombie that has exited and waits for its
 * parent). A process that belongs to another user counts as existing. */
TARNBASE_API int tarn_process_is_exist(int pid);

/* Writes the absolute path of the executable of process pid into buf (len
 * bytes, always terminated, cut when it does not fit). Returns the length
 * written, or -1 with errno set when the path cannot be read (no such
 * process, no permission, buf null or len 0). */
TARNBASE_API int tarn_process_get_path(int pid, char *buf, size_t len);

TARNBASE_END_DECLS

#endif
