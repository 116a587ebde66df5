/* sandbox.h -- a private mount namespace for the tests and the demo.
 *
 * tarn_sandbox_enter() moves the calling process (which must still have one
 * thread) into a mount namespace of its own, where everything the library
 * writes lands in memory and is gone when the last process leaves:
 *   every host mount             read-only (only this namespace's copy of
 *                                it: the host's mounts keep their flags), so
 *                                a write that escapes the overlays, such as
 *                                one through the link /etc/os-release ->
 *                                ../usr/lib/os-release, fails with EROFS
 *   /etc, /var, /usr/share, /tmp  overlays: the host's files show through,
 *                                writes go to a private tmpfs
 *   /run                         a fresh tmpfs (it holds the overlays' upper
 *                                layers)
 *   /dev/shm                     a fresh, empty tmpfs
 *   /usr/share/velmora/TARN      a fresh, empty tmpfs (the install root)
 *   /proc                        writable, as on the host
 *   the build folder             writable: the host's own folder (the
 *                                CMAKE_BINARY_DIR of the build that made
 *                                the program), even below /tmp
 * Device nodes stay usable: a read-only mount does not stop writes to them.
 * A test that needs its own /etc/os-release replaces the link with a file
 * (unlink, then create), never writes through it.
 *
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

/* Returns 0, or -1 after printing the reason on standard error as
 * "tarn-sandbox: STEP: REASON". */
int tarn_sandbox_enter(void);

#ifdef __cplusplus
}
#endif

#endif
