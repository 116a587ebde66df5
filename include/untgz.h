/* untgz.h -- unpacking a gzip-compressed tar archive (".tgz") into a directory.
 *
 * The archive is read once, block by block, through zlib's gzip file
 * interface, without a temporary file: one 512-byte block buffer and one
 * output file at a time, so memory use does not depend on the archive's
 * size. Reentrant: all state lives in the call. Two calls extracting into
 * the same directory are not coordinated.
 *
 * Stack and heap. The call keeps its large buffers (a 64 KiB write buffer
 * for the file being written, and the path buffers) in one heap block of
 * about 76 KB, allocated once per call, so that it runs on a thread with a
 * 32 KiB stack. zlib keeps its own state and buffers on the heap too
 * (about 420 KB with the 128 KiB input buffer used here).
 */
#ifndef UNTGZ_H
#define UNTGZ_H

#include <stdint.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* The largest archive that untgz_file reads and unpack_tgz (tarn_utils.h)
 * hands to tar, in bytes: 64 GiB. Packages are hundreds of megabytes; the
 * bound only stops a reader that would never end. */
#define UNTGZ_ARCHIVE_MAX_BYTES (64ULL * 1024 * 1024 * 1024)

/* Extracts the archive tgz_path into the directory dest_dir (null means the
 * current directory, "."). When dest_dir is not an existing directory it is
 * first created, with its missing parents, with mode 0755; a failure there
 * is not reported by itself (the members then fail to be created).
 *
 * What is extracted. Of each 512-byte tar header only the name (read as a
 * zero-terminated string from the first byte of the header), the mode, the
 * size and the type flag are used; owner, times, link name, magic, prefix
 * and the checksum are ignored, and the checksum is not verified.
 *  - Type '0' or a zero byte: a regular file "<dest_dir>/<name>". Its
 *    directory is first created with its missing parents, with the file's
 *    own mode (not a directory mode: a member of mode 0444 thus makes a
 *    directory that an unprivileged caller cannot write into, and that
 *    member and its later siblings then fail with "Couldn't create"). The
 *    file is created or truncated, written, and given the archive's
 *    permission bits (owner and times are not restored). The directory
 *    is checked, made and opened once for a run of files that share it:
 *    the files are created in the open directory (see Path safety).
 *  - Type '5': the directory "<dest_dir>/<name>" and its missing parents
 *    are created with the archive's mode; a failure is not reported, and
 *    directories that exist keep their mode.
 *  - Any other type (symbolic and hard links, devices, GNU long names, pax
 *    extended headers, ...) is ignored without consuming data blocks: no
 *    link is made, and archives with long-name or extended headers, whose
 *    data blocks are then read as headers, are not supported.
 * Set-user-ID and set-group-ID bits are never extracted: they are cleared
 * from every member's mode before it is used, for files, the directories
 * made for them and directory members alike, and a file that already
 * exists loses them as soon as it is opened to be rewritten (a privileged
 * writer would otherwise keep them on the new data, or on a file cut short
 * that never gets the archive's mode). The other bits, sticky and
 * world-writable ones included, are applied as the archive gives them.
 * Mode and size are octal text: a zero byte ends the field, blanks are
 * skipped, and any other character than '0'..'7' makes the field invalid
 * ("0000644 " and "    644" are both 0644). A name of exactly 100
 * characters has no terminator in its field and runs on into the mode
 * field; archives must not use such names. Joined paths are cut to 1023
 * bytes.
 *
 * Path safety. Nothing is ever written outside dest_dir. The checks apply
 * to regular-file and directory members (the ignored types write nothing)
 * and look at the part of the joined path after "<dest_dir>/", so that a
 * name which the 1023-byte cut shortens is judged as cut:
 *  - a name that is absolute, has a ".." component, or is cut away
 *    entirely is refused with the warn line
 *    "unsafe member name %s -- skipping\n" (the name as in the archive);
 *  - a name that leads through a symbolic link already in dest_dir whose
 *    target, fully resolved, is not inside dest_dir (or cannot be
 *    resolved: a dangling link) is refused with the warn line
 *    "member %s goes through symbolic link %s -- skipping\n" (the name,
 *    then the link's path); links that stay inside dest_dir are followed.
 *    A regular file is never written through a link in its own place,
 *    wherever the link points: that is refused the same way, and the file
 *    is opened with O_NOFOLLOW, so that a link put there after the check
 *    makes the open fail ("Couldn't create", errcode 0x28) instead.
 * A refused member creates nothing; a refused file's data blocks are read
 * and dropped. Extraction then goes on with the next member, and the call
 * returns 1 at the end; a refusal alone logs no "broken archive".
 * When the checks run: the extractor keeps eight checked directories open.
 * A directory member whose parent is one of them is made in it by its last
 * name alone (mkdirat, then given its exact mode) and kept open in its
 * turn; one whose parent is not, or at whose name something other than a
 * directory stands, has its path checked just before it is made. A file's
 * directory is checked when it is not one of the open ones; it is then
 * made and opened at once (its last component without following a link,
 * unless the check found one that stays inside), and it stays open until
 * the least recently used of the eight gives way to another. The file is
 * created in its open directory by its name alone (openat), so a component of the directory's path that another
 * process swaps for a link while the call runs, between two files or
 * between the check and the file's creation, does not redirect the file:
 * it lands in the directory that was checked (a directory swapped between
 * its check and its opening makes the open fail, "Couldn't create", if
 * its last component became a link; a directory removed meanwhile makes
 * the files of it fail with "Couldn't create", errcode 0x2). A new file is
 * made exclusively (O_EXCL); only a name that exists is looked at, without
 * following it: a link there is refused as above, anything else is opened
 * again, truncated, with O_NOFOLLOW.
 *
 * The archive. Only a regular file of at most UNTGZ_ARCHIVE_MAX_BYTES
 * bytes is read (symbolic links to one are followed). It is opened so that
 * the open cannot block (tarn_file_open_regular, tarnbase/tarn_file.h): a
 * FIFO, a device (a link to /dev/zero), a socket, a directory, or a larger
 * file is refused at once, before anything is extracted, as an archive
 * that cannot be opened. The stream is then read from that descriptor, so
 * that a file put in the archive's place meanwhile is not read.
 *
 * Returns 0 when the whole archive was extracted up to its end block (a
 * header block whose name is empty), and 1 otherwise: tgz_path null (not
 * logged), or any failure or refusal below. Each failure is logged at warn:
 *  - "Out of memory\n" when the buffers of the call cannot be allocated
 *    (the function has a failure result, so the process goes on); dest_dir
 *    is made as above, but the archive is not opened;
 *  - "canot open file [%s]\n" (the path) when the archive is missing,
 *    cannot be opened, is not a regular file or is larger than
 *    UNTGZ_ARCHIVE_MAX_BYTES, or zlib cannot take the stream (gzdopen);
 *  - "read tgz failed, err: %s" (zlib's gzerror text, "<path>: <reason>",
 *    with the archive's path as given, and no line end) when the stream
 *    cannot be decompressed (corrupt data, a wrong checksum); the call ends
 *    at once;
 *  - "make base dir %s failed, errcode:0x%x\n" (the directory, errno) when
 *    a file's directory cannot be created; extraction goes on;
 *  - "Couldn't create %s, errcode:0x%x\n" (the file's path, errno) when a
 *    file, or the directory it goes into, cannot be opened for writing;
 *    extraction stops;
 *  - "Error writing %s -- skipping, errcode:0x%x\n" (the path, errno) when
 *    a file's data cannot be written or flushed (a full disk): the file is
 *    deleted and, despite the message, extraction stops;
 *  - "broken archive\n" when extraction stopped on one of the two failures
 *    above, an invalid size field, a size above 2147483647 bytes (more than
 *    the 32-bit signed data count holds), or a stream that ends inside a
 *    file's data (the partial block is not written) or inside a header
 *    block (the partial header, its missing bytes read as zero, is still
 *    processed first);
 *  - "failed gzclose\n" when closing the stream reports an error (a stream
 *    cut short); the result is not changed by it.
 * Without any message the call returns 1 when the stream ends exactly at a
 * block boundary before the end block, or when a header's mode field is
 * invalid (extraction stops there).
 *
 * Files extracted before a failure stay; a file whose write failed is
 * deleted; a file cut short by a truncated stream stays, without its mode
 * applied. */
TARNAUX_API int32_t untgz_file(const char *tgz_path, const char *dest_dir);

TARNAUX_END_DECLS

#endif
