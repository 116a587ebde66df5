// Random identifiers from libuuid.

#include "tarnbase/tarn_uuid.h"

#include <errno.h>

#include <uuid/uuid.h>

#include "errno_result.h"

static_assert(sizeof(uuid_t) == sizeof(tarn_uuid_t), "a tarn_uuid_t holds one uuid_t");

using tarnbase::fail;

extern "C" {

TARNBASE_API int tarn_uuid_create(tarn_uuid_t *uuid) {
  if (uuid == nullptr) return fail(EINVAL);
  uuid_generate_random(uuid->bytes);
  return 0;
}

TARNBASE_API int tarn_uuid_make_cstr(const tarn_uuid_t *uuid, char *buf, size_t len) {
  if (uuid == nullptr || buf == nullptr || len == 0) return fail(EINVAL);
  if (len < TARN_UUID_CSTR_SIZE) {
    buf[0] = '\0';
    return fail(ERANGE);
  }
  uuid_unparse_lower(uuid->bytes, buf);
  return 0;
}

}  // extern "C"
