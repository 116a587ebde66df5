/* tarn_product_internal.h -- the product install record's reader, for the
 * product family and its tests. Not exported.
 */
#ifndef TARN_PRODUCT_INTERNAL_H
#define TARN_PRODUCT_INTERNAL_H

#include "tarn_product.h"

/* A newly allocated copy (tarn_strdup) of the "install_path" recorded for
 * product in the install record <app home>//config/promotions_install/
 * inskey.eni, read under the record's lock (its path followed by ".lock");
 * the caller frees it with tarn_free_. Returns null, after logging at warn,
 * when there is no app home ("get_apphome_path_main failed"), when the lock
 * cannot be taken ("flock file failed <lock path>"), when the record holds
 * no such key ("read <record path> failed: missing section[<product>]
 * field[install_path]") and when the record cannot be loaded ("load ini
 * file failed: <record path>", followed by the same "read ... failed" line:
 * an unloadable record holds no key either). When memory runs out for the
 * copy, the process logs "Out of memory" at fatal and ends with exit status
 * 0: a null result could not tell that apart from a product without a path. */
char *tarn_product_get_install_path(const char *product);

#endif
