// Component helpers. For now: joining a relative path to a base directory
// or, by default, to the app home.

#include "com_info.h"

#include <string.h>

#include <tarnbase/tarn_str.h>

#include "log_frame.h"
#include "tarn_apphome_internal.h"
#include "tarn_directory.h"

extern "C" {

TARNAUX_API kep_result_t tarn_apphome_path_cat_auto(const char *base, const char *rel, char *out,
                                                    int32_t out_len) {
  if (out == nullptr || rel == nullptr || out_len <= 0) return KEP_E_INVALID_PARAM;
  const int32_t buf_len = out_len;

  char joined[TARN_PATH_BUFFER_SIZE];
  memset(joined, 0, sizeof(joined));
  int length = 0;
  if (base != nullptr) {
    length = tarn_str_snprintf(joined, sizeof(joined), "%s/%s", base, rel);
  } else {
    char apphome[TARN_PATH_BUFFER_SIZE];
    memset(apphome, 0, sizeof(apphome));
    const kep_result_t ret = (kep_result_t)get_apphome_path_main(apphome, sizeof(apphome));
    CHECK_EXPR(KEP_E_SUCCESS == ret, "get apphome path fail!\n");
    if (KEP_E_SUCCESS != ret) return ret;
    length = tarn_str_snprintf(joined, sizeof(joined), "%s/%s", apphome, rel);
  }

  const int ret = length;
  CHECK_EXPR(ret < buf_len, "len err! expect[%d], buf_len[%d]", ret, buf_len);
  if (ret >= buf_len) {
    // The caller learns how many characters the path needs; out is left
    // as it was.
    return (kep_result_t)ret;
  }
  tarn_strlcpy(out, joined, (size_t)buf_len);
  return KEP_E_SUCCESS;
}

}  // extern "C"
