/* sandbox.h -- a private mount namespace for the tests and the demo.
 *
 * tarn_sandbox_enter() moves the calling process (which must still have one
 * thread) into a mount namespace of its own, where everything the library
 * writes lands in memory and is gone when the last process leaves:
 *   /etc, /var, /usr/share, /tmp  overlays: the host's files show through,
 *                                 writes go to a private tmpfs
 *   /dev/shm                      a fresh, empty tmpfs
 *   /usr/share/velmora/TARN       a fresh, empty tmpfs (the install root)
 * As root it needs nothing more; as another user it first enters a user
 * namespace of its own, mapped to root inside. Children started afterwards
 * (fork, exec) share the namespace. Two sandboxes never see each other's
 * files or shared memory.
 */
#ifndef TARN_SANDBOX_H
#define TARN_SANDBOX_H

#ifdef __cplusplus
extern "C" {
#endif

/* Returns 0, or -1 after printing the reason on standard error. */
int tarn_sandbox_enter(void);

#ifdef __cplusplus
}
#endif

#endif
