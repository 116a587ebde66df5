/* tarn_product.h -- which products and components are installed, which
 * products are registered, and the repair of the product register.
 *
 * The records live in the current app home (tarn_directory.h). Their paths
 * are the app home path, "/", and a fixed part that begins with "/", so
 * they hold a doubled separator, which is kept:
 *
 *   <app home>//config/promotions_install/inskey.eni   product install record
 *   <app home>//config/product_register.eni            product register
 *   <app home>//config/product_register_backup.eni     its backup (the
 *                                                       register's directory
 *                                                       + "/product_register_backup.eni")
 *   <app home>//config/component_info/<component>.ejs  component manifests
 *
 * The install record is an ini file with one section per product name and
 * the key "install_path": the product's install directory or file. The
 * register is an ini file with the section "product" holding a key per
 * product name, registered when its decimal value is above 0, and a key
 * "count"; its backup has the same form.
 *
 * Locking. The install record and the register are each read under an
 * exclusive lock on their path followed by ".lock" (tarnbase/tarn_flock.h).
 * The backup and the component manifests are read without locks.
 *
 * The queries answer 0 ("no") whenever a record, the app home or a lock is
 * unavailable; only the repair reports failures. Messages named below are
 * logged through the library's log with the level given; each ends with a
 * line end. Where the app home is read, the reader's own line
 * (get_apphome_dir_name, tarn_directory.h) may come first.
 */
#ifndef TARN_PRODUCT_H
#define TARN_PRODUCT_H

#include <stdint.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* Whether product is installed: 1 when the install record holds an
 * "install_path" for it that names a directory or a regular file (a
 * symbolic link counts by what it points to), otherwise 0 (a missing path,
 * a device, a socket, a pipe). Reading the record logs at warn, each with
 * its own text: "get_apphome_path_main failed" (no app home), "flock file
 * failed <lock path>" (the record's lock cannot be taken), "read <record
 * path> failed: missing section[<product>] field[install_path]" (no path
 * recorded, also after "load ini file failed: <record path>" when the record
 * cannot be loaded); each of these is followed by "<product>
 * get_production_install_path failed!" at warn. When memory runs out while the path is copied, the
 * process logs "Out of memory" at fatal and ends with exit status 0.
 * product must not be null (it is not checked). */
TARNAUX_API int32_t is_product_installed(const char *product);

/* Whether the component is installed: non-zero (1) when the component
 * manifest directory holds a regular file, or a symbolic link to one, named
 * exactly component followed by ".ejs" (case-sensitive: "FOO.ejs" and
 * "foo.ejs.bak" are not "foo"), otherwise 0; also 0 when there is no app
 * home or the directory cannot be read (nothing logged), and when component
 * is null (logged at warn "check is_component_installed failed: empty
 * component_name!"). */
TARNAUX_API int32_t is_component_installed(const char *component);

/* Checks the product register at register_path and restores it from its
 * backup, the file "product_register_backup.eni" in the same directory,
 * when it is missing, cannot be loaded or is incomplete. The backup is
 * looked at first: without a loadable backup the result is -1 and the
 * register is not even examined, however whole it is. A register is
 * whole when a section or key named "product" and one named "count" (whole
 * names, case-sensitive) are both in it; a whole register is never
 * touched. A restored register is a copy of the backup (tarn_file_copy)
 * given the mode 777 in decimal, that is 01411 octal: sticky, owner read,
 * group and others execute. Only a regular backup is copied: one that is
 * something else by the time of the copy (a FIFO, a device such as a link
 * to /dev/zero) is refused at once, without blocking, as a failed copy
 * with errcode EFTYPE (ENODEV, 19, on Linux; tarnbase/tarn_file.h). The backup is read without a lock, the
 * register's lock is the caller's.
 *
 * Returns 0 when the register is whole (logged at info "ready to check
 * [<register_path>]"); -1 for a null register_path (nothing logged), when
 * the backup does not exist (logged at warn "product_register backup file
 * is no exists, path is <backup path>") or cannot be loaded (logged at warn
 * "product_register backup file is failed, path is <backup path>"), in
 * which case the register is left as it is; otherwise the result of the
 * copy: 0 when the register was restored (logged at info "reset backup
 * product_register successed"), or a positive errno value (logged at warn
 * "tarn_file_copy is failed, backup path is <backup path>, inskey path is
 * <register_path>, errcode is <errno>"). Before a restore, a missing
 * register is logged at warn "file does't exist [<register_path>]" and one
 * that cannot be loaded at warn "load [<register_path>] error!"; an
 * incomplete one is logged only by "ready to check". */
TARNAUX_API int32_t check_and_reset_pro_reg_by_backup(const char *register_path);

/* Whether product is registered: 1 when the register's section "product"
 * holds the key product with a decimal value above 0; 0 when the value is
 * 0, negative or not a number, when the key is absent, and on every
 * failure. Under the register's lock, the register is first checked and,
 * when needed, restored from its backup (check_and_reset_pro_reg_by_backup,
 * whose messages it logs and whose result it ignores), then loaded. Logged
 * at warn: "check is_product_register failed: invalid parameter" (null
 * product), "get_apphome_path_main failed" (no app home), "flock file
 * failed <lock path>" (the register's lock cannot be taken),
 * "tarn_ini_file_load failed path[<register path>]" (the register cannot be
 * loaded). */
TARNAUX_API int32_t is_product_register(const char *product);

TARNAUX_END_DECLS

#endif
