// Protected JSON files: JSON text sealed with XChaCha20-Poly1305 (libsodium)
// and read back into jansson trees. The layout is in docs/ejs.md:
//
//   header (8 bytes: "QIVEJS", 0, format 1) | nonce (24) | ciphertext | tag (16)
//
// The header is the associated data, so it is authenticated with the text.

#include "qiv_ejs/qiv_ejs.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>

#include <sodium.h>

#include "qiv_ejs_key.h"

namespace {

constexpr unsigned char kHeader[8] = {'Q', 'I', 'V', 'E', 'J', 'S', 0, 1};
constexpr size_t kNonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr size_t kTagSize = crypto_aead_xchacha20poly1305_ietf_ABYTES;
constexpr size_t kOverhead = sizeof(kHeader) + kNonceSize + kTagSize;
constexpr unsigned char kKey[crypto_aead_xchacha20poly1305_ietf_KEYBYTES] = {QIV_EJS_KEY_BYTES};
static_assert(sizeof(kKey) == 32, "the build key must be 32 bytes");

struct FreeDeleter {
  void operator()(void *block) const { free(block); }
};
using Bytes = std::unique_ptr<unsigned char, FreeDeleter>;

struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

// Fills the record as jansson does, the code too (json_error_code reads it
// from the last byte of text).
void set_error(json_error_t *error, const char *path, const char *text, int position,
               enum json_error_code code) {
  if (error == nullptr) return;
  error->line = -1;
  error->column = -1;
  error->position = position;
  snprintf(error->source, sizeof(error->source), "%s", path != nullptr ? path : "<null>");
  // Cut as jansson cuts: the last byte is the code's.
  const size_t length = strnlen(text, sizeof(error->text) - 2);
  memcpy(error->text, text, length);
  error->text[length] = '\0';
  error->text[sizeof(error->text) - 1] = (char)code;
}

// The code of the record for a failure before parsing, by its errno.
enum json_error_code code_of(int error) {
  switch (error) {
    case ENOMEM:
      return json_error_out_of_memory;
    case EBADMSG:
      return json_error_invalid_format;
    case ENOSYS:
      return json_error_unknown;
    default:
      return json_error_cannot_open_file;
  }
}

// Reads the whole file into a new block; the caller frees it. On failure
// returns null with errno set and the reason in *why.
unsigned char *read_whole_file(const char *path, size_t *size, const char **why) {
  *why = "cannot read file";
  Fd file;
  // O_NONBLOCK: a named pipe without a writer is refused below instead of
  // blocking the open; O_NOCTTY: a terminal does not become the process's
  // controlling terminal. Neither changes anything for a regular file.
  file.fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (file.fd < 0) return nullptr;
  struct stat info;
  if (fstat(file.fd, &info) != 0) return nullptr;
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    return nullptr;
  }
  if (!S_ISREG(info.st_mode)) {
    *why = "not a regular file";
    errno = EINVAL;
    return nullptr;
  }
  if ((unsigned long long)info.st_size > QIV_EJS_MAX_FILE_SIZE) {
    *why = "file too large";
    errno = EFBIG;
    return nullptr;
  }
  // One byte more than the size that fstat saw, so that a file that grows
  // while it is read is noticed instead of being cut at the old size.
  const size_t capacity = (size_t)info.st_size + 1;
  Bytes data(static_cast<unsigned char *>(malloc(capacity)));
  if (!data) {
    *why = "out of memory";
    errno = ENOMEM;
    return nullptr;
  }
  size_t used = 0;
  while (used < capacity) {
    const ssize_t got = read(file.fd, data.get() + used, capacity - used);
    if (got < 0) {
      if (errno == EINTR) continue;
      return nullptr;
    }
    if (got == 0) break;
    used += (size_t)got;
  }
  if (used == capacity) {
    *why = "file too large";
    errno = EFBIG;
    return nullptr;
  }
  *size = used;
  return data.release();
}

bool has_protected_header(const unsigned char *data, size_t size) {
  return size >= sizeof(kHeader) && memcmp(data, kHeader, sizeof(kHeader)) == 0;
}

// Reads and opens a protected file: *text gets a new zero-terminated block
// with the sealed text. On failure returns false with errno set and the
// reason in *why.
bool open_protected(const char *path, char **text, size_t *length, const char **why) {
  size_t size = 0;
  Bytes data(read_whole_file(path, &size, why));
  if (!data) return false;

  if (!has_protected_header(data.get(), size)) {
#ifdef QIV_EJS_ALLOW_PLAIN
    char *plain = static_cast<char *>(malloc(size + 1));
    if (plain == nullptr) {
      *why = "out of memory";
      errno = ENOMEM;
      return false;
    }
    memcpy(plain, data.get(), size);
    plain[size] = '\0';
    *text = plain;
    *length = size;
    return true;
#else
    *why = "not a protected file";
    errno = EBADMSG;
    return false;
#endif
  }
  if (size < kOverhead) {
    *why = "protected file is cut short";
    errno = EBADMSG;
    return false;
  }
  if (sodium_init() < 0) {
    *why = "cryptography unavailable";
    errno = ENOSYS;
    return false;
  }

  const unsigned char *nonce = data.get() + sizeof(kHeader);
  const unsigned char *sealed = nonce + kNonceSize;
  const size_t sealed_size = size - sizeof(kHeader) - kNonceSize;
  const size_t plain_size = sealed_size - kTagSize;
  char *plain = static_cast<char *>(malloc(plain_size + 1));
  if (plain == nullptr) {
    *why = "out of memory";
    errno = ENOMEM;
    return false;
  }
  unsigned long long opened = 0;
  if (crypto_aead_xchacha20poly1305_ietf_decrypt(reinterpret_cast<unsigned char *>(plain), &opened,
                                                 nullptr, sealed, sealed_size, kHeader,
                                                 sizeof(kHeader), nonce, kKey) != 0) {
    sodium_memzero(plain, plain_size + 1);
    free(plain);
    *why = "protected file failed authentication";
    errno = EBADMSG;
    return false;
  }
  plain[opened] = '\0';
  *text = plain;
  *length = (size_t)opened;
  return true;
}

// Writes size bytes to a new file beside path and renames it over path.
int replace_file(const char *path, const unsigned char *data, size_t size) {
  std::string temporary = std::string(path) + ".XXXXXX";
  Fd file;
  file.fd = mkostemp(&temporary[0], O_CLOEXEC);
  if (file.fd < 0) return -1;
  auto fail = [&temporary]() {
    const int saved = errno;
    unlink(temporary.c_str());
    errno = saved;
    return -1;
  };
  // mkostemp creates the file 0600; a manifest is read by every process.
  if (fchmod(file.fd, 0644) != 0) return fail();
  size_t written = 0;
  while (written < size) {
    const ssize_t put = write(file.fd, data + written, size - written);
    if (put < 0) {
      if (errno == EINTR) continue;
      return fail();
    }
    written += (size_t)put;
  }
  if (fsync(file.fd) != 0) return fail();
  const int fd = file.fd;
  file.fd = -1;
  if (close(fd) != 0) return fail();
  if (rename(temporary.c_str(), path) != 0) return fail();
  return 0;
}

}  // namespace

extern "C" {

QIV_EJS_API int qiv_ejs_open_file(const char *path, char **text, size_t *length) {
  if (path == nullptr || text == nullptr || length == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const char *why = nullptr;
  return open_protected(path, text, length, &why) ? 0 : -1;
}

QIV_EJS_API void qiv_ejs_free(char *text) { free(text); }

QIV_EJS_API int qiv_ejs_seal_file(const char *path, const void *text, size_t length) try {
  if (path == nullptr || (text == nullptr && length != 0)) {
    errno = EINVAL;
    return -1;
  }
  if (length > QIV_EJS_MAX_FILE_SIZE - kOverhead) {
    errno = EFBIG;
    return -1;
  }
  if (sodium_init() < 0) {
    errno = ENOSYS;
    return -1;
  }
  const size_t size = kOverhead + length;
  Bytes data(static_cast<unsigned char *>(malloc(size)));
  if (!data) {
    errno = ENOMEM;
    return -1;
  }
  memcpy(data.get(), kHeader, sizeof(kHeader));
  unsigned char *nonce = data.get() + sizeof(kHeader);
  randombytes_buf(nonce, kNonceSize);
  // An empty text may come as a null pointer, which libsodium must not see.
  static const unsigned char kEmpty[1] = {0};
  const unsigned char *plain = length != 0 ? static_cast<const unsigned char *>(text) : kEmpty;
  crypto_aead_xchacha20poly1305_ietf_encrypt(nonce + kNonceSize, nullptr, plain, length, kHeader,
                                             sizeof(kHeader), nullptr, nonce, kKey);
  return replace_file(path, data.get(), size);
} catch (const std::bad_alloc &) {
  errno = ENOMEM;
  return -1;
}

QIV_EJS_API json_t *qiv_json_load_file_ejs_ex(const char *path, size_t flags, json_error_t *error) {
  if (path == nullptr) {
    set_error(error, path, "wrong arguments", -1, json_error_invalid_argument);
    errno = EINVAL;
    return nullptr;
  }
  // As jansson does, a successful load leaves the record empty.
  set_error(error, path, "", 0, json_error_unknown);
  char *text = nullptr;
  size_t length = 0;
  const char *why = nullptr;
  if (!open_protected(path, &text, &length, &why)) {
    const int saved = errno;
    char reason[JSON_ERROR_TEXT_LENGTH];
    snprintf(reason, sizeof(reason), "%s: %s", why, strerror(saved));
    set_error(error, path, reason, -1, code_of(saved));
    errno = saved;
    return nullptr;
  }
  json_error_t parse_error;
  json_t *tree = json_loadb(text, length, flags, &parse_error);
  sodium_memzero(text, length);
  free(text);
  if (tree == nullptr) {
    if (error != nullptr) {
      *error = parse_error;
      snprintf(error->source, sizeof(error->source), "%s", path);
    }
    errno = json_error_code(&parse_error) == json_error_out_of_memory ? ENOMEM : EINVAL;
  }
  return tree;
}

QIV_EJS_API json_t *qiv_json_load_file_ejs(const char *path) {
  return qiv_json_load_file_ejs_ex(path, 0, nullptr);
}

QIV_EJS_API json_t *qiv_json_object_get_ejs(const json_t *object, const char *key) {
  return json_object_get(object, key);
}

QIV_EJS_API size_t qiv_json_array_size_ejs(const json_t *array) { return json_array_size(array); }

QIV_EJS_API json_t *qiv_json_array_get_ejs(const json_t *array, size_t index) {
  return json_array_get(array, index);
}

QIV_EJS_API const char *qiv_json_string_value_ejs(const json_t *json) {
  return json_string_value(json);
}

QIV_EJS_API void qiv_json_delete_ejs(json_t *json) {
  if (json != nullptr) json_delete(json);
}

QIV_EJS_API void qiv_json_decref_ejs(json_t *json) { json_decref(json); }

QIV_EJS_API int qiv_json_dump_file_ejs(const json_t *json, const char *path, size_t flags) {
  if (json == nullptr || path == nullptr) {
    errno = EINVAL;
    return -1;
  }
  char *text = json_dumps(json, flags);
  if (text == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const int result = qiv_ejs_seal_file(path, text, strlen(text));
  const int saved = errno;
  json_free_t free_text = nullptr;
  json_get_alloc_funcs(nullptr, &free_text);
  free_text(text);
  errno = saved;
  return result;
}

}  // extern "C"
