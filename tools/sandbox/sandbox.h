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
 * namespace of its own, mapped to root inside (which the kernel refuses in
 * a chroot). It works where / is a mount point (a host, a container after
 * pivot_root) and in a plain chroot, where / is not. Children started
 * afterwards (fork, exec) share the namespace. Two sandboxes never see each
 * other's files or shared memory.
 *
 * In a chroot, /proc/self/exe of a process that has just entered a new
 * mount namespace names its executable by the path from outside the chroot.
 * The program is then executed again, before tarn_sandbox_enter() returns,
 * through the path that names it inside the root, with the same arguments
 * (read from /proc/self/cmdline) and the environment variable
 * TARN_SANDBOX_ENTERED set to the number of the namespace made. In that run
 * tarn_sandbox_enter() finds the variable naming its own namespace, removes
 * it from the environment and returns 0 at once; a variable naming any
 * other namespace is removed and ignored. So call it first in main(),
 * before writing anything or starting anything.
 */
#ifndef TARN_SANDBOX_H
#define TARN_SANDBOX_H

#ifdef __cplusplus
extern "C" {
#endif

/* Returns 0, or -1 after printing the reason on standard error as
 * "tarn-sandbox: STEP: REASON". When the program must be executed again (a
 * chroot, see above) it does not return on success. */
int tarn_sandbox_enter(void);

#ifdef __cplusplus
}
#endif

#endif
