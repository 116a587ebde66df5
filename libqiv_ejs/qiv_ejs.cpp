// Protected JSON files: JSON text signed with Ed25519 (libsodium) by a
// publisher whose secret key no endpoint holds, checked against the public
// keys that the endpoint trusts before any byte is parsed, and read back into
// jansson trees. The layout is in docs/ejs.md:
//
//   header (8 bytes: "QIVEJS", 0, format 2) | key id (8) | text | signature (64)
//
// The signature covers every byte before it. The earlier sealed form
// (format 1: XChaCha20-Poly1305 under a key compiled into every build) proves
// nothing about its author; it is opened only for conversion, or loaded by a
// build that opts in (QIV_EJS_ACCEPT_SEALED).

#include "qiv_ejs/qiv_ejs.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <initializer_list>
#include <memory>
#include <new>
#include <string>

#include <sodium.h>

#include "log_frame.h"
#include "qiv_ejs_key.h"

namespace {

constexpr size_t kMagicSize = 8;
constexpr unsigned char kSealedHeader[kMagicSize] = {'Q', 'I', 'V', 'E', 'J', 'S', 0, 1};
constexpr unsigned char kSignedHeader[kMagicSize] = {'Q', 'I', 'V', 'E', 'J', 'S', 0, 2};

// The signed form.
constexpr size_t kKeyIdSize = 8;
constexpr size_t kSignedHead = kMagicSize + kKeyIdSize;
constexpr size_t kSignatureSize = crypto_sign_BYTES;
constexpr size_t kSignedOverhead = kSignedHead + kSignatureSize;
constexpr size_t kPublicKeySize = crypto_sign_PUBLICKEYBYTES;
constexpr unsigned char kBuildPublicKey[kPublicKeySize] = {QIV_EJS_PUBLIC_KEY_BYTES};
static_assert(sizeof(kBuildPublicKey) == 32, "the build's public key must be 32 bytes");
constexpr char kKeysDirectory[] = "/etc/velmora/keys.d";

// The sealed form.
constexpr size_t kNonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr size_t kTagSize = crypto_aead_xchacha20poly1305_ietf_ABYTES;
constexpr size_t kSealedOverhead = kMagicSize + kNonceSize + kTagSize;
constexpr unsigned char kSealingKey[crypto_aead_xchacha20poly1305_ietf_KEYBYTES] = {QIV_EJS_KEY_BYTES};
static_assert(sizeof(kSealingKey) == 32, "the sealing key must be 32 bytes");

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

// What a failed open reports: errno and a reason for the error record. The
// reason may name a key file, so it is kept here rather than as a literal.
struct Why {
  char text[JSON_ERROR_TEXT_LENGTH] = "";
  // Sets the reason, the parts one after the other, cut to fit.
  bool fail(int error, std::initializer_list<const char *> parts) {
    size_t used = 0;
    for (const char *part : parts)
      for (; *part != '\0' && used + 1 < sizeof(text); ++part) text[used++] = *part;
    text[used] = '\0';
    errno = error;
    return false;
  }
  bool fail(int error, const char *reason) { return fail(error, {reason}); }
};

bool starts_with(const unsigned char *data, size_t size, const unsigned char (&header)[kMagicSize]) {
  return size >= kMagicSize && memcmp(data, header, kMagicSize) == 0;
}

// A key's identifier: the first 8 bytes of its BLAKE2b-256 digest.
void key_id_of(const unsigned char *key, unsigned char id[kKeyIdSize]) {
  unsigned char digest[crypto_generichash_BYTES];
  crypto_generichash(digest, sizeof(digest), key, kPublicKeySize, nullptr, 0);
  memcpy(id, digest, kKeyIdSize);
}

void hex_of(const unsigned char id[kKeyIdSize], char out[QIV_EJS_KEY_ID_SIZE]) {
  sodium_bin2hex(out, QIV_EJS_KEY_ID_SIZE, id, kKeyIdSize);
}

enum class KeyFile { usable, unsafe, unusable };

// Reads a key file of 32 bytes as 64 hexadecimal digits (blanks and line
// ends ignored) at name inside dir. With root_only, a file that is not
// root's or that group or others may write is unsafe: its key is read (so
// that a failure can name it) but must not be trusted. Links are not
// followed, so a file's ownership is the one that counts; a device or a
// pipe is not even opened.
KeyFile read_key_file(int dir, const char *name, bool root_only, unsigned char key[32]) {
  struct stat info;
  if (fstatat(dir, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return KeyFile::unusable;
  Fd file;
  if (S_ISREG(info.st_mode))
    file.fd = openat(dir, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (file.fd < 0 && !S_ISREG(info.st_mode)) {
    errno = EINVAL;
    return KeyFile::unusable;
  }
  // The checks below are of what was opened, whatever stands at the name now.
  if (file.fd < 0 || fstat(file.fd, &info) != 0) return KeyFile::unusable;
  if (!S_ISREG(info.st_mode)) {
    errno = EINVAL;
    return KeyFile::unusable;
  }
  char hex[256];
  size_t used = 0;
  for (ssize_t got; used < sizeof(hex) && (got = read(file.fd, hex + used, sizeof(hex) - used)) != 0;) {
    if (got < 0) {
      if (errno == EINTR) continue;
      return KeyFile::unusable;
    }
    used += (size_t)got;
  }
  size_t length = 0;
  const char *end = nullptr;
  const bool parsed = used < sizeof(hex) &&
                      sodium_hex2bin(key, 32, hex, used, " \t\r\n", &length, &end) == 0 &&
                      length == 32 && end == hex + used;
  sodium_memzero(hex, sizeof(hex));
  if (!parsed) {
    errno = EINVAL;
    return KeyFile::unusable;
  }
  if (root_only && (info.st_uid != 0 || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0))
    return KeyFile::unsafe;
  return KeyFile::usable;
}

struct Dir {
  DIR *dir = nullptr;
  ~Dir() {
    if (dir != nullptr) closedir(dir);
  }
};

// Finds the trusted public key whose identifier is id: the build's own, or
// one in a file of keys_dir; refuses a key revoked by an entry named after
// its identifier in keys_dir/revoked. Any entry there revokes, whoever owns
// it: a revocation only takes trust away, so honouring it fails closed.
bool find_trusted_key(const char *keys_dir, const unsigned char id[kKeyIdSize],
                      unsigned char key[kPublicKeySize], Why *why) {
  char revocation[sizeof("revoked/") + QIV_EJS_KEY_ID_SIZE];
  memcpy(revocation, "revoked/", 8);
  hex_of(id, revocation + 8);
  Dir keys;
  keys.dir = opendir(keys_dir);
  struct stat info;
  if (keys.dir != nullptr && fstatat(dirfd(keys.dir), revocation, &info, AT_SYMLINK_NOFOLLOW) == 0)
    return why->fail(EBADMSG, "signing key revoked");

  unsigned char build_id[kKeyIdSize];
  key_id_of(kBuildPublicKey, build_id);
  if (memcmp(id, build_id, kKeyIdSize) == 0) {
    memcpy(key, kBuildPublicKey, kPublicKeySize);
    return true;
  }
  const char *ignored = nullptr;
  while (const struct dirent *entry = keys.dir != nullptr ? readdir(keys.dir) : nullptr) {
    if (entry->d_name[0] == '.' || strcmp(entry->d_name, "revoked") == 0) continue;
    const KeyFile kind = read_key_file(dirfd(keys.dir), entry->d_name, true, key);
    if (kind == KeyFile::unusable) continue;
    unsigned char file_id[kKeyIdSize];
    key_id_of(key, file_id);
    // An unsafe file is reported whoever's key it holds: its owner meant it
    // to be trusted and should learn that it is not.
    if (kind == KeyFile::unsafe)
      LOG(warn, "key file %s/%s ignored (not root's or writable by others)\n", keys_dir, entry->d_name);
    if (memcmp(file_id, id, kKeyIdSize) != 0) continue;
    if (kind == KeyFile::usable) return true;
    ignored = entry->d_name;
    break;
  }
  sodium_memzero(key, kPublicKeySize);
  if (ignored == nullptr) return why->fail(EBADMSG, "signing key not trusted");
  return why->fail(EBADMSG, {"signing key not trusted: key file ", keys_dir, "/", ignored,
                             " ignored (not root's or writable by others)"});
}

// Checks the signed file of size bytes in data against the trusted keys;
// on success moves its text to the front of data, terminated (data holds at
// least size + 1 bytes), and gives its key's identifier in hex.
bool open_signed(unsigned char *data, size_t size, const char *keys_dir, size_t *length,
                 char key_id[QIV_EJS_KEY_ID_SIZE], Why *why) {
  if (size < kSignedOverhead) return why->fail(EBADMSG, "signed file is cut short");
  if (sodium_init() < 0) return why->fail(ENOSYS, "cryptography unavailable");
  const unsigned char *id = data + kMagicSize;
  unsigned char key[kPublicKeySize];
  if (!find_trusted_key(keys_dir, id, key, why)) return false;
  const size_t signed_size = size - kSignatureSize;
  if (crypto_sign_verify_detached(data + signed_size, data, signed_size, key) != 0)
    return why->fail(EBADMSG, "bad signature");
  hex_of(id, key_id);
  *length = signed_size - kSignedHead;
  memmove(data, data + kSignedHead, *length);
  data[*length] = '\0';
  return true;
}

// Opens a file of the sealed form: *text gets a new zero-terminated block.
bool open_sealed(const unsigned char *data, size_t size, char **text, size_t *length, Why *why) {
  if (size < kSealedOverhead) return why->fail(EBADMSG, "sealed file is cut short");
  if (sodium_init() < 0) return why->fail(ENOSYS, "cryptography unavailable");
  const unsigned char *nonce = data + kMagicSize;
  const unsigned char *sealed = nonce + kNonceSize;
  const size_t sealed_size = size - kMagicSize - kNonceSize;
  const size_t plain_size = sealed_size - kTagSize;
  char *plain = static_cast<char *>(malloc(plain_size + 1));
  if (plain == nullptr) return why->fail(ENOMEM, "out of memory");
  unsigned long long opened = 0;
  if (crypto_aead_xchacha20poly1305_ietf_decrypt(reinterpret_cast<unsigned char *>(plain), &opened,
                                                 nullptr, sealed, sealed_size, kSealedHeader,
                                                 kMagicSize, nonce, kSealingKey) != 0) {
    sodium_memzero(plain, plain_size + 1);
    free(plain);
    return why->fail(EBADMSG, "sealed file failed authentication");
  }
  plain[opened] = '\0';
  *text = plain;
  *length = (size_t)opened;
  return true;
}

// Which forms an open accepts besides the signed one.
enum class Forms { loadable, sealed_only };

// Reads and opens a protected file: *text gets a new zero-terminated block
// with its text and key_id the signing key's identifier ("" for a form
// without one). On failure returns false with errno set and the reason.
bool open_protected(const char *path, const char *keys_dir, Forms forms, char **text, size_t *length,
                    char key_id[QIV_EJS_KEY_ID_SIZE], Why *why) {
  size_t size = 0;
  const char *read_failure = nullptr;
  Bytes data(read_whole_file(path, &size, &read_failure));
  if (!data) return why->fail(errno, read_failure);
  key_id[0] = '\0';

  if (starts_with(data.get(), size, kSealedHeader)) {
#ifndef QIV_EJS_ACCEPT_SEALED
    if (forms != Forms::sealed_only) return why->fail(EBADMSG, "sealed file is not signed");
#endif
    return open_sealed(data.get(), size, text, length, why);
  }
  if (forms == Forms::sealed_only) return why->fail(EBADMSG, "not a sealed file");
  if (starts_with(data.get(), size, kSignedHeader)) {
    if (!open_signed(data.get(), size, keys_dir, length, key_id, why)) return false;
    *text = reinterpret_cast<char *>(data.release());
    return true;
  }
#ifdef QIV_EJS_ALLOW_PLAIN
  data.get()[size] = '\0';
  *length = size;
  *text = reinterpret_cast<char *>(data.release());
  return true;
#else
  return why->fail(EBADMSG, "not a signed file");
#endif
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

// Writes the key file path anew (it must not exist) with the 32 key bytes
// as hexadecimal digits and a line end, mode mode whatever the umask.
int write_key_file(const char *path, const unsigned char key[32], mode_t mode) {
  char hex[65];
  sodium_bin2hex(hex, sizeof(hex), key, 32);
  hex[64] = '\n';
  Fd file;
  file.fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  int result = -1;
  if (file.fd >= 0 && fchmod(file.fd, mode) == 0 && write(file.fd, hex, sizeof(hex)) == (ssize_t)sizeof(hex) &&
      fsync(file.fd) == 0)
    result = 0;
  const int saved = errno;
  sodium_memzero(hex, sizeof(hex));
  if (result != 0 && file.fd >= 0) unlink(path);
  errno = saved;
  return result;
}

// Whether a call that writes may go on: its arguments are good (else
// EINVAL) and libsodium is ready (else ENOSYS).
bool ready_to_write(bool arguments_good) {
  if (!arguments_good) {
    errno = EINVAL;
    return false;
  }
  if (sodium_init() < 0) {
    errno = ENOSYS;
    return false;
  }
  return true;
}

}  // namespace

extern "C" {

QIV_EJS_API int qiv_ejs_open_file_ex(const char *path, const char *keys_dir, char **text, size_t *length,
                                     char *key_id) {
  if (path == nullptr || text == nullptr || length == nullptr) {
    errno = EINVAL;
    return -1;
  }
  char id[QIV_EJS_KEY_ID_SIZE];
  Why why;
  if (!open_protected(path, keys_dir != nullptr ? keys_dir : kKeysDirectory, Forms::loadable, text, length,
                      id, &why))
    return -1;
  if (key_id != nullptr) memcpy(key_id, id, sizeof(id));
  return 0;
}

QIV_EJS_API int qiv_ejs_open_file(const char *path, char **text, size_t *length) {
  return qiv_ejs_open_file_ex(path, nullptr, text, length, nullptr);
}

QIV_EJS_API int qiv_ejs_open_sealed_file(const char *path, char **text, size_t *length) {
  if (path == nullptr || text == nullptr || length == nullptr) {
    errno = EINVAL;
    return -1;
  }
  char id[QIV_EJS_KEY_ID_SIZE];
  Why why;
  return open_protected(path, kKeysDirectory, Forms::sealed_only, text, length, id, &why) ? 0 : -1;
}

QIV_EJS_API void qiv_ejs_free(char *text) { free(text); }

QIV_EJS_API int qiv_ejs_keygen(const char *secret_key_file, const char *public_key_file, char *key_id) {
  if (!ready_to_write(secret_key_file != nullptr && public_key_file != nullptr)) return -1;
  unsigned char public_key[kPublicKeySize];
  unsigned char secret_key[crypto_sign_SECRETKEYBYTES];
  crypto_sign_keypair(public_key, secret_key);
  // The secret key file keeps the seed, the first half of libsodium's key.
  int result = write_key_file(secret_key_file, secret_key, 0600);
  sodium_memzero(secret_key, sizeof(secret_key));
  if (result != 0) return -1;
  if (write_key_file(public_key_file, public_key, 0644) != 0) {
    const int saved = errno;
    unlink(secret_key_file);
    errno = saved;
    return -1;
  }
  if (key_id != nullptr) {
    unsigned char id[kKeyIdSize];
    key_id_of(public_key, id);
    hex_of(id, key_id);
  }
  return 0;
}

QIV_EJS_API int qiv_ejs_sign_file(const char *path, const void *text, size_t length,
                                  const char *secret_key_file) try {
  if (length > QIV_EJS_MAX_FILE_SIZE - kSignedOverhead) {
    errno = EFBIG;
    return -1;
  }
  if (!ready_to_write(path != nullptr && (text != nullptr || length == 0) && secret_key_file != nullptr))
    return -1;
  unsigned char seed[crypto_sign_SEEDBYTES];
  if (read_key_file(AT_FDCWD, secret_key_file, false, seed) != KeyFile::usable) return -1;
  unsigned char public_key[kPublicKeySize];
  unsigned char secret_key[crypto_sign_SECRETKEYBYTES];
  crypto_sign_seed_keypair(public_key, secret_key, seed);
  sodium_memzero(seed, sizeof(seed));
  const size_t size = kSignedOverhead + length;
  Bytes data(static_cast<unsigned char *>(malloc(size)));
  if (!data) {
    sodium_memzero(secret_key, sizeof(secret_key));
    errno = ENOMEM;
    return -1;
  }
  memcpy(data.get(), kSignedHeader, kMagicSize);
  key_id_of(public_key, data.get() + kMagicSize);
  if (length != 0) memcpy(data.get() + kSignedHead, text, length);
  crypto_sign_detached(data.get() + kSignedHead + length, nullptr, data.get(), kSignedHead + length,
                       secret_key);
  sodium_memzero(secret_key, sizeof(secret_key));
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
  char key_id[QIV_EJS_KEY_ID_SIZE];
  Why why;
  if (!open_protected(path, kKeysDirectory, Forms::loadable, &text, &length, key_id, &why)) {
    const int saved = errno;
    char reason[JSON_ERROR_TEXT_LENGTH];
    snprintf(reason, sizeof(reason), "%s: %s", why.text, strerror(saved));
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

QIV_EJS_API int qiv_json_sign_file_ejs(const json_t *json, const char *path, size_t flags,
                                       const char *secret_key_file) {
  if (json == nullptr || path == nullptr) {
    errno = EINVAL;
    return -1;
  }
  char *text = json_dumps(json, flags);
  if (text == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const int result = qiv_ejs_sign_file(path, text, strlen(text), secret_key_file);
  const int saved = errno;
  json_free_t free_text = nullptr;
  json_get_alloc_funcs(nullptr, &free_text);
  free_text(text);
  errno = saved;
  return result;
}

}  // extern "C"
