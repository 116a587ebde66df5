/* tarn_uuid.h -- random identifiers (UUIDs) and their text form.
 *
 * Identifiers are random (version 4) UUIDs made by libuuid from the
 * kernel's random source. Their text form is the usual 36 characters in
 * lower case: "3f2504e0-4f89-41d3-9a0c-0305e82c3301".
 *
 * Results: 0 on success, otherwise a positive errno value (errno is also
 * set).
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_UUID_H
#define TARN_UUID_H

#include <stddef.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* One identifier: its 16 bytes in the usual order. */
typedef struct tarn_uuid {
  unsigned char bytes[16];
} tarn_uuid_t;

/* The bytes that the text form takes, its terminating zero included. */
#define TARN_UUID_CSTR_SIZE 37

/* Stores a new random identifier in *uuid. Returns 0, or EINVAL for a null
 * uuid. */
TARNBASE_API int tarn_uuid_create(tarn_uuid_t *uuid);

/* Writes the text form of *uuid (36 lower-case characters and a zero) into
 * buf, which holds len bytes. Returns 0; EINVAL when uuid or buf is null
 * or len is 0 (nothing written); ERANGE when len is less than
 * TARN_UUID_CSTR_SIZE (buf then holds "", never a cut identifier). */
TARNBASE_API int tarn_uuid_make_cstr(const tarn_uuid_t *uuid, char *buf, size_t len);

TARNBASE_END_DECLS

#endif
