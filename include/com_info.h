/* com_info.h -- component helpers: joining paths below the app home.
 *
 * Results are codes of the family in kep_result.h.
 */
#ifndef COM_INFO_H
#define COM_INFO_H

#include <stdint.h>

#include "kep_result.h"
#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* Joins rel to the directory base as "<base>/<rel>", or, when base is null,
 * to the app home path as "<app home>/<rel>", and copies the result into
 * out, which holds out_len bytes. The joined path is formed in a 1024-byte
 * buffer (longer paths are cut there).
 * Returns KEP_E_SUCCESS (0) when the path was copied;
 * KEP_E_INVALID_PARAM for a null out or rel or an out_len of 0 or below;
 * the non-zero result of get_apphome_path_main (tarn_directory.h) when base
 * is null and there is no app home; or, when the path does not fit in out,
 * its length (a positive number: out must hold that many characters and a
 * terminator), leaving out untouched. The last two are logged at warn. */
TARNAUX_API kep_result_t tarn_apphome_path_cat_auto(const char *base, const char *rel, char *out,
                                                    int32_t out_len);

TARNAUX_END_DECLS

#endif
