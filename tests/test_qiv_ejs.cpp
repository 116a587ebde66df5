// The protected-JSON loader through libqiv_ejs.so: signing and loading back,
// the accessors against jansson's own calls, the loader's flags and error
// record, every way a file can fail to open, the trusted keys of
// /etc/velmora/keys.d with their rotation and revocation, and crash-safe
// signing. Files are signed with the build's secret key, whose public key
// the library trusts.
//
// Two variants of the loader are loaded beside the library with dlopen
// (built by qiv_ejs_variant in libqiv_ejs/CMakeLists.txt): one built to load
// plain JSON as well, one to load files of the earlier sealed form.

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jansson.h>
#include <qiv_ejs/qiv_ejs.h>
#include <sodium.h>
#include <tarnbase/tarn_log.h>

#include "child_process.h"
#include "files.h"

namespace {

using tarn_test::fork_child;
using tarn_test::list_directory;
using tarn_test::make_temp_directory;
using tarn_test::read_file;
using tarn_test::reap;
using tarn_test::write_file;

// Keeps the library's log lines, as "[level] message", while it lives.
class LogCapture {
 public:
  LogCapture() {
    lines_ = {};
    tarn_log_register(&LogCapture::sink, nullptr);
  }
  ~LogCapture() { tarn_log_register(&LogCapture::discard, nullptr); }
  const std::vector<std::string> &lines() const { return lines_; }
  void clear() { lines_.clear(); }

 private:
  static void sink(void *, uint32_t, const char *line, size_t length) {
    // "[time] [level] [pid:..] [tid:..] [kep] [file:line] message"
    const std::string text(line, length);
    const size_t word = text.find("] [") + 2;
    const size_t word_end = text.find(']', word) + 1;
    const size_t message = text.find("] ", text.find("] [kep] [") + 8) + 2;
    lines_.push_back(text.substr(word, word_end - word) + " " + text.substr(message));
  }
  static void discard(void *, uint32_t, const char *, size_t) {}
  static std::vector<std::string> lines_;
};
std::vector<std::string> LogCapture::lines_;

constexpr size_t kHeaderSize = 8;
constexpr size_t kKeyIdSize = 8;
constexpr size_t kHead = kHeaderSize + kKeyIdSize;
constexpr size_t kSignatureSize = 64;
constexpr size_t kOverhead = kHead + kSignatureSize;
const std::string kHeader("QIVEJS\0\2", 8);
const char kBuildKey[] = QIV_EJS_BUILD_SECRET_KEY;
const char kKeysDir[] = "/etc/velmora/keys.d";

const char kManifest[] =
    "{\n  \"package\": \"tarn_base\",\n  \"version\": \"1.2.3\",\n"
    "  \"files\": [\"bin/a\", \"lib/b.so\"],\n  \"count\": 2\n}\n";

// A loader variant opened with dlopen, with the library's functions under
// their own names.
class Variant {
 public:
  explicit Variant(const char *path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) return;
    open_file = symbol<decltype(open_file)>("qiv_ejs_open_file");
    free_text = symbol<decltype(free_text)>("qiv_ejs_free");
    load_ex = symbol<decltype(load_ex)>("qiv_json_load_file_ejs_ex");
  }
  ~Variant() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  Variant(const Variant &) = delete;
  Variant &operator=(const Variant &) = delete;

  bool ok() const {
    return open_file != nullptr && free_text != nullptr && load_ex != nullptr;
  }

  decltype(&qiv_ejs_open_file) open_file = nullptr;
  decltype(&qiv_ejs_free) free_text = nullptr;
  decltype(&qiv_json_load_file_ejs_ex) load_ex = nullptr;

 private:
  template <typename Fn>
  Fn symbol(const char *name) {
    return reinterpret_cast<Fn>(dlsym(handle_, name));
  }
  void *handle_;
};

// What a load gave: the tree (released with the object), errno and the
// error record.
struct Loaded {
  json_t *tree = nullptr;
  int error = 0;
  json_error_t record;

  Loaded() { memset(&record, 0x55, sizeof(record)); }
  ~Loaded() { json_decref(tree); }
  Loaded(const Loaded &) = delete;
  Loaded &operator=(const Loaded &) = delete;
};

void load_into(Loaded *loaded, decltype(&qiv_json_load_file_ejs_ex) load, const std::string &path,
               size_t flags) {
  errno = 0;
  loaded->tree = load(path.c_str(), flags, &loaded->record);
  loaded->error = errno;
}

// What qiv_ejs_open_file (or a variant's) gave.
struct Opened {
  int result = 0;
  int error = 0;
  std::string text;
};

Opened open_with(decltype(&qiv_ejs_open_file) open, decltype(&qiv_ejs_free) release,
                 const std::string &path) {
  Opened opened;
  char *text = nullptr;
  size_t length = 0;
  errno = 0;
  opened.result = open(path.c_str(), &text, &length);
  opened.error = errno;
  if (opened.result == 0) {
    EXPECT_NE(nullptr, text);
    EXPECT_EQ('\0', text[length]) << "the text is zero-terminated";
    opened.text.assign(text, length);
    release(text);
  }
  return opened;
}

Opened open_text(const std::string &path) { return open_with(qiv_ejs_open_file, qiv_ejs_free, path); }

std::string string_member(const json_t *object, const char *key) {
  const char *value = qiv_json_string_value_ejs(qiv_json_object_get_ejs(object, key));
  return value != nullptr ? value : "<none>";
}

// The bytes of a hexadecimal text (blanks and line ends ignored).
std::string from_hex(const std::string &hex) {
  std::string bytes(hex.size() / 2, '\0');
  size_t length = 0;
  if (sodium_hex2bin(reinterpret_cast<unsigned char *>(&bytes[0]), bytes.size(), hex.data(), hex.size(),
                     " \n", &length, nullptr) != 0)
    return "";
  bytes.resize(length);
  return bytes;
}

// The identifier of the public key in the key file path, as the library
// writes it: 16 hexadecimal digits.
std::string key_id_of_file(const std::string &path) {
  const std::string key = from_hex(read_file(path));
  unsigned char digest[32];
  crypto_generichash(digest, sizeof(digest), reinterpret_cast<const unsigned char *>(key.data()), key.size(),
                     nullptr, 0);
  char hex[17];
  sodium_bin2hex(hex, sizeof(hex), digest, 8);
  return hex;
}

// The build's public key file, beside its secret key (qiv_ejs_build.pub).
std::string build_public_key() {
  const std::string secret = kBuildKey;
  return secret.substr(0, secret.size() - strlen("key")) + "pub";
}

// A file of the earlier sealed form with text, sealed under the build's key
// of that form as the library sealed it: header (format 1), nonce, text
// encrypted with XChaCha20-Poly1305 with the header as associated data.
std::string sealed_form(const std::string &text) {
  const std::string key = from_hex(QIV_EJS_SEALING_KEY);
  const std::string header("QIVEJS\0\1", 8);
  std::string nonce(24, '\0');
  randombytes_buf(&nonce[0], nonce.size());
  std::string sealed(text.size() + 16, '\0');
  crypto_aead_xchacha20poly1305_ietf_encrypt(
      reinterpret_cast<unsigned char *>(&sealed[0]), nullptr, reinterpret_cast<const unsigned char *>(text.data()),
      text.size(), reinterpret_cast<const unsigned char *>(header.data()), header.size(), nullptr,
      reinterpret_cast<const unsigned char *>(nonce.data()), reinterpret_cast<const unsigned char *>(key.data()));
  return header + nonce + sealed;
}

mode_t mode_of(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : (mode_t)-1;
}

class QivEjsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, sodium_init() < 0 ? -1 : 0);
    dir_ = make_temp_directory("qiv_ejs");
    ASSERT_FALSE(dir_.empty());
  }
  // The keys directory is the sandbox's, shared by the program's tests.
  void TearDown() override { std::filesystem::remove_all(kKeysDir); }
  std::string at(const std::string &name) const { return dir_ + "/" + name; }

  // Signs text with the secret key file (the build's by default) into the
  // file name and returns its path.
  std::string signed_file(const std::string &name, const std::string &text, const char *key = kBuildKey) {
    const std::string path = at(name);
    EXPECT_EQ(0, qiv_ejs_sign_file(path.c_str(), text.data(), text.size(), key));
    return path;
  }

  // Makes the key pair name.key and name.pub in the test's directory and
  // returns the secret key file.
  std::string key_pair(const std::string &name) {
    const std::string secret = at(name + ".key");
    EXPECT_EQ(0, qiv_ejs_keygen(secret.c_str(), at(name + ".pub").c_str(), nullptr));
    return secret;
  }

  // Puts the public key of the pair name into the keys directory as
  // file, with mode.
  std::string trust(const std::string &name, const std::string &file, mode_t mode = 0644) {
    std::filesystem::create_directories(kKeysDir);
    const std::string path = std::string(kKeysDir) + "/" + file;
    EXPECT_TRUE(write_file(path, read_file(at(name + ".pub"))));
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
  }

  // Revokes the key whose identifier is id.
  void revoke(const std::string &id) {
    std::filesystem::create_directories(std::string(kKeysDir) + "/revoked");
    EXPECT_TRUE(write_file(std::string(kKeysDir) + "/revoked/" + id, ""));
  }

  // Loads path through the library.
  void load(Loaded *loaded, const std::string &path, size_t flags = 0) {
    load_into(loaded, qiv_json_load_file_ejs_ex, path, flags);
  }

  // Expects a load of path to fail with error before parsing, giving a null
  // tree and an error record of reason (text), path (source), -1s, and the
  // code: invalid format for a file that is not a good protected file
  // (EBADMSG), else (a file that cannot be read) cannot open file.
  void expect_refused(const std::string &path, int error, const std::string &reason) {
    SCOPED_TRACE(path);
    Loaded loaded;
    load(&loaded, path);
    EXPECT_EQ(nullptr, loaded.tree);
    EXPECT_EQ(error, loaded.error);
    EXPECT_EQ(reason + ": " + strerror(error), loaded.record.text);
    EXPECT_EQ(error == EBADMSG ? json_error_invalid_format : json_error_cannot_open_file,
              json_error_code(&loaded.record));
    EXPECT_EQ(path, loaded.record.source);
    EXPECT_EQ(-1, loaded.record.line);
    EXPECT_EQ(-1, loaded.record.column);
    EXPECT_EQ(-1, loaded.record.position);
    errno = 0;
    EXPECT_EQ(nullptr, qiv_json_load_file_ejs(path.c_str()));
    EXPECT_EQ(error, errno);
    const Opened opened = open_text(path);
    EXPECT_EQ(-1, opened.result);
    EXPECT_EQ(error, opened.error);
  }

  std::string dir_;
};

// ---------------------------------------------------------------------------
// Sealing and loading back

TEST_F(QivEjsTest, ASignedFileLoadsAsTheTree) {
  const std::string path = signed_file("m.ejs", kManifest);
  json_t *tree = qiv_json_load_file_ejs(path.c_str());
  ASSERT_NE(nullptr, tree);
  EXPECT_EQ("tarn_base", string_member(tree, "package"));
  EXPECT_EQ("1.2.3", string_member(tree, "version"));
  const json_t *files = qiv_json_object_get_ejs(tree, "files");
  ASSERT_EQ(2u, qiv_json_array_size_ejs(files));
  EXPECT_STREQ("lib/b.so", qiv_json_string_value_ejs(qiv_json_array_get_ejs(files, 1)));
  EXPECT_EQ(2, json_integer_value(qiv_json_object_get_ejs(tree, "count")));
  qiv_json_decref_ejs(tree);
}

TEST_F(QivEjsTest, OpenFileGivesTheSignedTextExactly) {
  const std::string texts[] = {kManifest, "[1,2 ,3]", "{ \"z\":1,\"a\" :2 }\r\n\n",
                               "{\"name\": \"caf\xc3\xa9\"}", std::string("a\0b", 3), ""};
  for (const std::string &text : texts) {
    const std::string path = signed_file("t.ejs", text);
    const Opened opened = open_text(path);
    EXPECT_EQ(0, opened.result);
    EXPECT_EQ(text, opened.text);
  }
}

TEST_F(QivEjsTest, AnEmptyTextMayBeGivenAsNull) {
  const std::string path = at("empty.ejs");
  ASSERT_EQ(0, qiv_ejs_sign_file(path.c_str(), nullptr, 0, kBuildKey));
  EXPECT_EQ(kOverhead, read_file(path).size());
  const Opened opened = open_text(path);
  EXPECT_EQ(0, opened.result);
  EXPECT_EQ("", opened.text);
  // Opened and authentic, but no JSON.
  Loaded loaded;
  load(&loaded, path);
  EXPECT_EQ(nullptr, loaded.tree);
  EXPECT_EQ(EINVAL, loaded.error);
}

TEST_F(QivEjsTest, SignFileSignsJanssonsEncodingAndLoadsBackEqual) {
  json_t *tree = json_pack("{s:s, s:s, s:[s,s], s:i}", "version", "2.0.1", "package", "tarn_sys",
                           "files", "x", "y", "size", 42);
  ASSERT_NE(nullptr, tree);
  const std::string path = at("dump.ejs");
  const size_t flags = JSON_INDENT(2) | JSON_SORT_KEYS;
  ASSERT_EQ(0, qiv_json_sign_file_ejs(tree, path.c_str(), flags, kBuildKey));
  char *expected = json_dumps(tree, flags);
  ASSERT_NE(nullptr, expected);
  EXPECT_EQ(std::string(expected), open_text(path).text);
  free(expected);
  json_t *loaded = qiv_json_load_file_ejs(path.c_str());
  ASSERT_NE(nullptr, loaded);
  EXPECT_TRUE(json_equal(tree, loaded));
  qiv_json_decref_ejs(loaded);
  json_decref(tree);
}

TEST_F(QivEjsTest, SignFileRefusesWhatJanssonCannotEncodeAndNullArguments) {
  json_t *bare = json_string("bare");
  const std::string path = at("dump.ejs");
  errno = 0;
  EXPECT_EQ(-1, qiv_json_sign_file_ejs(bare, path.c_str(), 0, kBuildKey));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_FALSE(tarn_test::exists(path));
  // With JSON_ENCODE_ANY it is signed, and loads with JSON_DECODE_ANY.
  ASSERT_EQ(0, qiv_json_sign_file_ejs(bare, path.c_str(), JSON_ENCODE_ANY, kBuildKey));
  Loaded loaded;
  load(&loaded, path, JSON_DECODE_ANY);
  EXPECT_STREQ("bare", qiv_json_string_value_ejs(loaded.tree));
  errno = 0;
  EXPECT_EQ(-1, qiv_json_sign_file_ejs(nullptr, path.c_str(), 0, kBuildKey));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(-1, qiv_json_sign_file_ejs(bare, nullptr, 0, kBuildKey));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(-1, qiv_json_sign_file_ejs(bare, at("other.ejs").c_str(), JSON_ENCODE_ANY, nullptr));
  EXPECT_EQ(EINVAL, errno);
  json_decref(bare);
}

TEST_F(QivEjsTest, TheFileIsHeaderKeyIdTextAndSignature) {
  const std::string path = signed_file("m.ejs", kManifest);
  const std::string bytes = read_file(path);
  ASSERT_EQ(kOverhead + strlen(kManifest), bytes.size());
  EXPECT_EQ(kHeader, bytes.substr(0, kHeaderSize));
  // The key identifier: the first 8 bytes of the public key's BLAKE2b-256.
  const std::string seed = from_hex(read_file(kBuildKey));
  ASSERT_EQ(32u, seed.size());
  unsigned char public_key[32], secret_key[64];
  crypto_sign_seed_keypair(public_key, secret_key, reinterpret_cast<const unsigned char *>(seed.data()));
  unsigned char digest[32];
  crypto_generichash(digest, sizeof(digest), public_key, sizeof(public_key), nullptr, 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(digest), kKeyIdSize), bytes.substr(kHeaderSize, kKeyIdSize));
  EXPECT_EQ(kManifest, bytes.substr(kHead, strlen(kManifest))) << "the text is kept as it stands";
  // The signature covers every byte before it.
  const size_t covered = bytes.size() - kSignatureSize;
  EXPECT_EQ(0, crypto_sign_verify_detached(reinterpret_cast<const unsigned char *>(bytes.data()) + covered,
                                           reinterpret_cast<const unsigned char *>(bytes.data()), covered,
                                           public_key));
  // Ed25519 signatures are deterministic: the same text signs the same.
  EXPECT_EQ(bytes, read_file(signed_file("m2.ejs", kManifest)));
}

TEST_F(QivEjsTest, TheSignedFileIsReadableByAllWhateverTheUmask) {
  const mode_t saved = umask(077);
  const std::string path = signed_file("m.ejs", kManifest);
  umask(saved);
  EXPECT_EQ(0644u, mode_of(path));
  // Also when it replaces a file of another mode.
  ASSERT_EQ(0, chmod(path.c_str(), 0600));
  signed_file("m.ejs", "[]");
  EXPECT_EQ(0644u, mode_of(path));
}

TEST_F(QivEjsTest, SigningReplacesTheFileWholeAndLeavesNothingBeside) {
  ASSERT_TRUE(write_file(at("m.ejs"), std::string(5000, 'x')));
  const std::string path = signed_file("m.ejs", "[1]");
  EXPECT_EQ(kOverhead + 3, read_file(path).size());
  EXPECT_EQ("[1]", open_text(path).text);
  EXPECT_EQ(std::set<std::string>{"m.ejs"}, list_directory(dir_));
}

TEST_F(QivEjsTest, AFailedSignLeavesTheOldFileAndNoTemporary) {
  // A directory that only root may write: the caller (nobody) cannot put
  // the new file beside the old one, although it may read the key.
  const std::string path = signed_file("m.ejs", kManifest);
  const std::string before = read_file(path);
  const std::string keys = make_temp_directory("qiv_ejs_key");
  const std::string key = keys + "/readable.key";
  ASSERT_TRUE(write_file(key, read_file(kBuildKey)));
  ASSERT_EQ(0, chmod(keys.c_str(), 0755));
  ASSERT_EQ(0, chmod(key.c_str(), 0644));
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const pid_t pid = fork_child([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    errno = 0;
    if (qiv_ejs_sign_file(path.c_str(), "[2]", 3, key.c_str()) != -1) return 11;
    return errno == EACCES ? 0 : 12;
  });
  EXPECT_EQ(0, reap(pid));
  EXPECT_EQ(before, read_file(path));
  EXPECT_EQ(kManifest, open_text(path).text);
  EXPECT_EQ(std::set<std::string>{"m.ejs"}, list_directory(dir_));
  std::filesystem::remove_all(keys);
}

TEST_F(QivEjsTest, SignRefusesBadArgumentsKeysAndTooLongATextWithoutWriting) {
  const std::string path = at("m.ejs");
  const std::string keys = make_temp_directory("qiv_ejs_key");
  const std::string short_key = keys + "/short.key", not_hex = keys + "/text.key";
  ASSERT_TRUE(write_file(short_key, read_file(kBuildKey).substr(0, 62) + "\n"));
  ASSERT_TRUE(write_file(not_hex, "this is no key, it only has the length of one: 64 bytes of text.\n"));
  struct Case {
    const char *path;
    const void *text;
    size_t length;
    const char *key;
    int error;
  } cases[] = {{nullptr, "[]", 2, kBuildKey, EINVAL},
               {path.c_str(), nullptr, 2, kBuildKey, EINVAL},
               {path.c_str(), "[]", 2, nullptr, EINVAL},
               {path.c_str(), "[]", 2, short_key.c_str(), EINVAL},
               {path.c_str(), "[]", 2, not_hex.c_str(), EINVAL},
               {path.c_str(), "[]", 2, keys.c_str(), EINVAL},
               {path.c_str(), "[]", 2, "/no/such.key", ENOENT},
               {path.c_str(), "[]", QIV_EJS_MAX_FILE_SIZE - kOverhead + 1, kBuildKey, EFBIG},
               {path.c_str(), "[]", SIZE_MAX, kBuildKey, EFBIG}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.key != nullptr ? c.key : "no key");
    errno = 0;
    EXPECT_EQ(-1, qiv_ejs_sign_file(c.path, c.text, c.length, c.key));
    EXPECT_EQ(c.error, errno);
  }
  errno = 0;
  EXPECT_EQ(-1, qiv_ejs_sign_file(at("missing/m.ejs").c_str(), "[]", 2, kBuildKey));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_TRUE(list_directory(dir_).empty());
  std::filesystem::remove_all(keys);
}

TEST_F(QivEjsTest, TheLargestTextThatFitsIsSignedAndLoads) {
  std::string text = "[\"" + std::string(QIV_EJS_MAX_FILE_SIZE - kOverhead - 4, 'a') + "\"]";
  const std::string path = signed_file("big.ejs", text);
  EXPECT_EQ(QIV_EJS_MAX_FILE_SIZE, read_file(path).size());
  Loaded loaded;
  load(&loaded, path);
  ASSERT_NE(nullptr, loaded.tree);
  EXPECT_EQ(text.size() - 4, strlen(qiv_json_string_value_ejs(qiv_json_array_get_ejs(loaded.tree, 0))));
}

// ---------------------------------------------------------------------------
// The accessors answer as jansson does

TEST(QivEjsAccessors, ObjectGetAnswersAsJansson) {
  json_t *object = json_pack("{s:s, s:i}", "a", "x", "b", 1);
  json_t *array = json_pack("[s]", "a");
  json_t *string = json_string("a");
  const json_t *values[] = {object, array, string, nullptr};
  for (const json_t *value : values) {
    for (const char *key : {"a", "b", "missing", "", static_cast<const char *>(nullptr)}) {
      EXPECT_EQ(json_object_get(value, key), qiv_json_object_get_ejs(value, key))
          << (key != nullptr ? key : "(null key)");
    }
  }
  EXPECT_STREQ("x", json_string_value(qiv_json_object_get_ejs(object, "a")));
  EXPECT_EQ(nullptr, qiv_json_object_get_ejs(array, "a"));
  EXPECT_EQ(nullptr, qiv_json_object_get_ejs(object, nullptr));
  json_decref(object);
  json_decref(array);
  json_decref(string);
}

TEST(QivEjsAccessors, ArraySizeAndGetAnswerAsJansson) {
  json_t *array = json_pack("[s,i,n]", "a", 2);
  json_t *empty = json_array();
  json_t *object = json_pack("{s:s}", "0", "x");
  const json_t *values[] = {array, empty, object, nullptr};
  for (const json_t *value : values) {
    EXPECT_EQ(json_array_size(value), qiv_json_array_size_ejs(value));
    for (size_t index : {(size_t)0, (size_t)1, (size_t)2, (size_t)3, SIZE_MAX}) {
      EXPECT_EQ(json_array_get(value, index), qiv_json_array_get_ejs(value, index)) << index;
    }
  }
  EXPECT_EQ(3u, qiv_json_array_size_ejs(array));
  EXPECT_EQ(0u, qiv_json_array_size_ejs(object));
  EXPECT_EQ(nullptr, qiv_json_array_get_ejs(array, 3));
  EXPECT_TRUE(json_is_null(qiv_json_array_get_ejs(array, 2)));
  json_decref(array);
  json_decref(empty);
  json_decref(object);
}

TEST(QivEjsAccessors, StringValueAnswersAsJansson) {
  json_t *string = json_string("text");
  json_t *empty = json_string("");
  json_t *number = json_integer(5);
  json_t *object = json_object();
  json_t *null = json_null();
  const json_t *values[] = {string, empty, number, object, null, nullptr};
  for (const json_t *value : values) {
    EXPECT_EQ(json_string_value(value), qiv_json_string_value_ejs(value));
  }
  EXPECT_STREQ("text", qiv_json_string_value_ejs(string));
  EXPECT_EQ(nullptr, qiv_json_string_value_ejs(number));
  for (json_t *value : {string, empty, number, object, null}) json_decref(value);
}

TEST(QivEjsAccessors, DecrefDropsOneReferenceAndDeleteFreesAtOnce) {
  json_t *tree = json_pack("{s:[i,i]}", "a", 1, 2);
  json_incref(tree);
  ASSERT_EQ(2u, tree->refcount);
  qiv_json_decref_ejs(tree);
  EXPECT_EQ(1u, tree->refcount);
  EXPECT_EQ(2u, qiv_json_array_size_ejs(qiv_json_object_get_ejs(tree, "a")));
  // Delete frees the tree although a second reference is still counted
  // (the sanitizer build would report a leak otherwise).
  json_incref(tree);
  qiv_json_delete_ejs(tree);
  qiv_json_decref_ejs(nullptr);
  qiv_json_delete_ejs(nullptr);
}

// ---------------------------------------------------------------------------
// Flags and the error record

TEST_F(QivEjsTest, DecodeAnyAcceptsABareValueThatFlagsZeroRefuse) {
  const std::string path = signed_file("bare.ejs", "\"just text\"");
  Loaded any;
  load(&any, path, JSON_DECODE_ANY);
  ASSERT_NE(nullptr, any.tree);
  EXPECT_STREQ("just text", qiv_json_string_value_ejs(any.tree));

  Loaded strict;
  load(&strict, path, 0);
  EXPECT_EQ(nullptr, strict.tree);
  EXPECT_EQ(EINVAL, strict.error);
  // The record is jansson's own for the same text, with the file as source.
  json_error_t expected;
  json_t *none = json_loads("\"just text\"", 0, &expected);
  ASSERT_EQ(nullptr, none);
  EXPECT_STREQ(expected.text, strict.record.text);
  EXPECT_NE(std::string::npos, std::string(strict.record.text).find("'[' or '{' expected"))
      << strict.record.text;
  EXPECT_EQ(expected.line, strict.record.line);
  EXPECT_EQ(expected.column, strict.record.column);
  EXPECT_EQ(expected.position, strict.record.position);
  EXPECT_EQ(path, strict.record.source);
  errno = 0;
  EXPECT_EQ(nullptr, qiv_json_load_file_ejs(path.c_str())) << "flags 0";
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(QivEjsTest, AParseErrorGivesJanssonsLineAndColumn) {
  const char text[] = "{\n  \"a\": 1,\n  \"b\": ]\n}\n";
  const std::string path = signed_file("bad.ejs", text);
  Loaded loaded;
  load(&loaded, path);
  EXPECT_EQ(nullptr, loaded.tree);
  EXPECT_EQ(EINVAL, loaded.error);
  json_error_t expected;
  ASSERT_EQ(nullptr, json_loads(text, 0, &expected));
  EXPECT_EQ(3, loaded.record.line);
  EXPECT_EQ(expected.line, loaded.record.line);
  EXPECT_EQ(expected.column, loaded.record.column);
  EXPECT_STREQ(expected.text, loaded.record.text);
  EXPECT_EQ(path, loaded.record.source);
}

TEST_F(QivEjsTest, OtherFlagsReachTheParser) {
  const std::string path = signed_file("dup.ejs", "{\"a\": 1, \"a\": 2}");
  Loaded lenient;
  load(&lenient, path, 0);
  ASSERT_NE(nullptr, lenient.tree);
  Loaded strict;
  load(&strict, path, JSON_REJECT_DUPLICATES);
  EXPECT_EQ(nullptr, strict.tree);
  EXPECT_EQ(EINVAL, strict.error);
}

TEST_F(QivEjsTest, ASuccessfulLoadLeavesAnEmptyRecord) {
  const std::string path = signed_file("m.ejs", kManifest);
  Loaded loaded;
  load(&loaded, path);
  ASSERT_NE(nullptr, loaded.tree);
  EXPECT_STREQ("", loaded.record.text);
  EXPECT_EQ(path, loaded.record.source);
  EXPECT_EQ(-1, loaded.record.line);
  EXPECT_EQ(-1, loaded.record.column);
  EXPECT_EQ(0, loaded.record.position);
}

TEST_F(QivEjsTest, TheRecordIsOptional) {
  const std::string good = signed_file("m.ejs", kManifest);
  json_t *tree = qiv_json_load_file_ejs_ex(good.c_str(), 0, nullptr);
  EXPECT_NE(nullptr, tree);
  qiv_json_decref_ejs(tree);
  errno = 0;
  EXPECT_EQ(nullptr, qiv_json_load_file_ejs_ex(at("missing").c_str(), 0, nullptr));
  EXPECT_EQ(ENOENT, errno);
}

// ---------------------------------------------------------------------------
// Files that do not open

TEST_F(QivEjsTest, AFlippedByteInAnyRegionIsRefused) {
  const std::string path = signed_file("m.ejs", kManifest);
  const std::string good = read_file(path);
  const size_t size = good.size();
  struct Case {
    const char *part;
    size_t offset;
    const char *reason;
  } cases[] = {{"header", 0, "not a signed file"},
               {"header", 6, "not a signed file"},
               {"header", 7, "not a signed file"},
               {"key id", kHeaderSize, "signing key not trusted"},
               {"key id", kHead - 1, "signing key not trusted"},
               {"text", kHead, "bad signature"},
               {"text", size / 2, "bad signature"},
               {"signature", size - kSignatureSize, "bad signature"},
               {"signature", size - 1, "bad signature"}};
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.part) + " byte " + std::to_string(c.offset));
    std::string bytes = good;
    bytes[c.offset] = (char)(bytes[c.offset] ^ 0x01);
    ASSERT_TRUE(write_file(path, bytes));
    expect_refused(path, EBADMSG, c.reason);
  }
  ASSERT_TRUE(write_file(path, good));
  EXPECT_EQ(kManifest, open_text(path).text) << "the unchanged file still opens";
}

TEST_F(QivEjsTest, ACutFileIsRefused) {
  const std::string path = signed_file("m.ejs", kManifest);
  const std::string good = read_file(path);
  struct Case {
    size_t length;
    const char *reason;
  } cases[] = {{0, "not a signed file"},
               {3, "not a signed file"},
               {kHeaderSize - 1, "not a signed file"},
               {kHeaderSize, "signed file is cut short"},
               {kHead, "signed file is cut short"},
               {kOverhead - 1, "signed file is cut short"},
               {kOverhead, "bad signature"},
               {good.size() - kSignatureSize, "bad signature"},
               {good.size() - 1, "bad signature"}};
  for (const Case &c : cases) {
    SCOPED_TRACE("cut at " + std::to_string(c.length));
    ASSERT_TRUE(write_file(path, good.substr(0, c.length)));
    expect_refused(path, EBADMSG, c.reason);
  }
}

TEST_F(QivEjsTest, AnAppendedByteIsRefused) {
  const std::string path = signed_file("m.ejs", kManifest);
  for (const std::string &tail : {std::string(1, '\0'), std::string("\n"), std::string(100, 'x')}) {
    ASSERT_TRUE(write_file(path, read_file(signed_file("m.ejs", kManifest)) + tail));
    expect_refused(path, EBADMSG, "bad signature");
  }
}

TEST_F(QivEjsTest, AnUnsignedFileIsRefused) {
  struct Case {
    const char *name;
    std::string bytes;
    const char *reason;
  } cases[] = {{"empty", "", "not a signed file"},
               {"plain JSON", kManifest, "not a signed file"},
               {"sealed form", sealed_form(kManifest), "sealed file is not signed"},
               {"sealed form cut short", sealed_form("").substr(0, 20), "sealed file is not signed"}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(write_file(at("u.ejs"), c.bytes));
    expect_refused(at("u.ejs"), EBADMSG, c.reason);
  }
}

TEST_F(QivEjsTest, ADirectoryAndAMissingFileAreRefused) {
  ASSERT_EQ(0, mkdir(at("dir.ejs").c_str(), 0755));
  expect_refused(at("dir.ejs"), EISDIR, "cannot read file");
  expect_refused(at("missing.ejs"), ENOENT, "cannot read file");
  expect_refused(at("no/such/dir.ejs"), ENOENT, "cannot read file");
}

// A pipe without a writer would block a plain open, and /dev/zero would be
// read up to the size limit: each is refused at once, the load and the open
// alike, in a child that the time limit ends if it blocks.
TEST_F(QivEjsTest, ANamedPipeOrADeviceIsRefusedAtOnce) {
  ASSERT_EQ(0, mkfifo(at("fifo.ejs").c_str(), 0644));
  ASSERT_EQ(0, symlink("/dev/zero", at("zero.ejs").c_str()));
  ASSERT_EQ(0, symlink("/dev/null", at("null.ejs").c_str()));
  for (const std::string &path : {at("fifo.ejs"), at("zero.ejs"), at("null.ejs")}) {
    const int status = tarn_test::run_with_time_limit(10, [&path] {
      json_error_t record;
      memset(&record, 0x7f, sizeof(record));
      errno = 0;
      if (qiv_json_load_file_ejs_ex(path.c_str(), 0, &record) != nullptr) return 1;
      if (errno != EINVAL) return 2;
      if (std::string(record.text) != std::string("not a regular file: ") + strerror(EINVAL)) return 3;
      if (json_error_code(&record) != json_error_cannot_open_file) return 4;
      if (path != record.source || record.line != -1 || record.column != -1 || record.position != -1)
        return 5;
      char *text = nullptr;
      size_t length = 0;
      errno = 0;
      if (qiv_ejs_open_file(path.c_str(), &text, &length) != -1 || errno != EINVAL) return 6;
      return 0;
    });
    EXPECT_EQ(0, status) << path << (status == tarn_test::killed_by(SIGALRM) ? ": blocked" : "");
  }
}

TEST_F(QivEjsTest, AWrongArgumentAndASuccessfulLoadSetTheRecordsCode) {
  json_error_t record;
  memset(&record, 0x7f, sizeof(record));
  EXPECT_EQ(nullptr, qiv_json_load_file_ejs_ex(nullptr, 0, &record));
  EXPECT_EQ(json_error_invalid_argument, json_error_code(&record));
  memset(&record, 0x7f, sizeof(record));
  json_t *tree = qiv_json_load_file_ejs_ex(signed_file("m.ejs", kManifest).c_str(), 0, &record);
  EXPECT_NE(nullptr, tree);
  EXPECT_EQ(json_error_unknown, json_error_code(&record));
  qiv_json_decref_ejs(tree);
}

TEST_F(QivEjsTest, AFileLargerThanTheLimitIsRefusedUnread) {
  const std::string path = signed_file("big.ejs", kManifest);
  // A signed head, then a hole up to one byte past the limit.
  ASSERT_EQ(0, truncate(path.c_str(), (off_t)QIV_EJS_MAX_FILE_SIZE + 1));
  expect_refused(path, EFBIG, "file too large");
  // At the limit itself the size is no reason: it fails authentication.
  ASSERT_EQ(0, truncate(path.c_str(), (off_t)QIV_EJS_MAX_FILE_SIZE));
  expect_refused(path, EBADMSG, "bad signature");
}

TEST_F(QivEjsTest, AFileThatCannotBeReadIsRefusedWithTheErrnoOfOpening) {
  const std::string path = signed_file("m.ejs", kManifest);
  ASSERT_EQ(0, chmod(path.c_str(), 0600));
  ASSERT_EQ(0, chmod(dir_.c_str(), 0755));
  const pid_t pid = fork_child([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
    json_error_t record;
    errno = 0;
    if (qiv_json_load_file_ejs_ex(path.c_str(), 0, &record) != nullptr) return 11;
    if (errno != EACCES) return 12;
    return std::string(record.text) == std::string("cannot read file: ") + strerror(EACCES) ? 0 : 13;
  });
  EXPECT_EQ(0, reap(pid));
}

TEST_F(QivEjsTest, NullArgumentsAreEinval) {
  Loaded loaded;
  errno = 0;
  loaded.tree = qiv_json_load_file_ejs_ex(nullptr, 0, &loaded.record);
  EXPECT_EQ(nullptr, loaded.tree);
  EXPECT_EQ(EINVAL, errno);
  EXPECT_STREQ("wrong arguments", loaded.record.text);
  EXPECT_STREQ("<null>", loaded.record.source);
  EXPECT_EQ(-1, loaded.record.line);
  errno = 0;
  EXPECT_EQ(nullptr, qiv_json_load_file_ejs(nullptr));
  EXPECT_EQ(EINVAL, errno);

  const std::string path = signed_file("m.ejs", kManifest);
  char *text = nullptr;
  size_t length = 0;
  errno = 0;
  EXPECT_EQ(-1, qiv_ejs_open_file(nullptr, &text, &length));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, qiv_ejs_open_file(path.c_str(), nullptr, &length));
  EXPECT_EQ(-1, qiv_ejs_open_file(path.c_str(), &text, nullptr));
  qiv_ejs_free(nullptr);
}

TEST_F(QivEjsTest, AFailedOpenLeavesTheCallersTextAndLengthAlone) {
  ASSERT_TRUE(write_file(at("plain.ejs"), kManifest));
  char marker[] = "marker";
  char *text = marker;
  size_t length = 77;
  EXPECT_EQ(-1, qiv_ejs_open_file(at("plain.ejs").c_str(), &text, &length));
  EXPECT_EQ(marker, text);
  EXPECT_EQ(77u, length);
}

// ---------------------------------------------------------------------------
// Keys: the build's, those of /etc/velmora/keys.d, revocations

TEST_F(QivEjsTest, AFileSignedByAnUnknownKeyIsRefused) {
  const std::string forged = signed_file("forged.ejs", kManifest, key_pair("stranger").c_str());
  expect_refused(forged, EBADMSG, "signing key not trusted");
  // Even with the build's key identifier in its header.
  std::string bytes = read_file(forged);
  bytes.replace(kHeaderSize, kKeyIdSize, read_file(signed_file("ours.ejs", "[]")).substr(kHeaderSize, kKeyIdSize));
  ASSERT_TRUE(write_file(forged, bytes));
  expect_refused(forged, EBADMSG, "bad signature");
}

TEST_F(QivEjsTest, OpenFileExGivesTheSigningKeysIdentifier) {
  const std::string path = signed_file("m.ejs", kManifest);
  char *text = nullptr;
  size_t length = 0;
  char id[QIV_EJS_KEY_ID_SIZE];
  ASSERT_EQ(0, qiv_ejs_open_file_ex(path.c_str(), nullptr, &text, &length, id));
  EXPECT_EQ(kManifest, std::string(text, length));
  qiv_ejs_free(text);
  EXPECT_EQ(key_id_of_file(build_public_key()), id);
  // A key trusted only by another directory.
  const std::string theirs = signed_file("theirs.ejs", "[]", key_pair("other").c_str());
  const std::string dir = at("keys");
  ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
  ASSERT_TRUE(write_file(dir + "/other.pub", read_file(at("other.pub"))));
  ASSERT_EQ(0, qiv_ejs_open_file_ex(theirs.c_str(), dir.c_str(), &text, &length, nullptr));
  qiv_ejs_free(text);
  ASSERT_EQ(0, qiv_ejs_open_file_ex(theirs.c_str(), dir.c_str(), &text, &length, id));
  qiv_ejs_free(text);
  EXPECT_EQ(key_id_of_file(at("other.pub")), id);
  errno = 0;
  EXPECT_EQ(-1, qiv_ejs_open_file_ex(theirs.c_str(), nullptr, &text, &length, id));
  EXPECT_EQ(EBADMSG, errno);
}

TEST_F(QivEjsTest, KeygenWritesTheSecretKeyForTheOwnerAloneAndNeverOverwrites) {
  const mode_t saved = umask(0);
  char id[QIV_EJS_KEY_ID_SIZE];
  const int made = qiv_ejs_keygen(at("k.key").c_str(), at("k.pub").c_str(), id);
  umask(saved);
  ASSERT_EQ(0, made);
  EXPECT_EQ(0600u, mode_of(at("k.key")));
  EXPECT_EQ(0644u, mode_of(at("k.pub")));
  EXPECT_EQ(65u, read_file(at("k.key")).size());
  EXPECT_EQ(key_id_of_file(at("k.pub")), id);
  const std::string secret = read_file(at("k.key"));
  struct Case {
    std::string secret, public_key;
    int error;
  } cases[] = {{at("k.key"), at("new.pub"), EEXIST}, {at("new.key"), at("k.pub"), EEXIST},
               {at("new.key"), at("missing/new.pub"), ENOENT}};
  for (const Case &c : cases) {
    errno = 0;
    EXPECT_EQ(-1, qiv_ejs_keygen(c.secret.c_str(), c.public_key.c_str(), nullptr));
    EXPECT_EQ(c.error, errno);
  }
  EXPECT_EQ(secret, read_file(at("k.key")));
  EXPECT_EQ((std::set<std::string>{"k.key", "k.pub"}), list_directory(dir_)) << "nothing left behind";
  errno = 0;
  EXPECT_EQ(-1, qiv_ejs_keygen(nullptr, at("x.pub").c_str(), nullptr));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(QivEjsTest, KeysRotateAndARevokedKeyIsRefused) {
  const std::string old_file = signed_file("old.ejs", kManifest, key_pair("old").c_str());
  const std::string new_file = signed_file("new.ejs", kManifest, key_pair("new").c_str());
  const std::string build_file = signed_file("build.ejs", kManifest);
  trust("old", "old.pub");
  trust("new", "new.pub", 0400);
  for (const std::string &path : {old_file, new_file, build_file}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(kManifest, open_text(path).text) << "both keys and the build's are trusted";
  }
  revoke(key_id_of_file(at("old.pub")));
  expect_refused(old_file, EBADMSG, "signing key revoked");
  EXPECT_EQ(kManifest, open_text(new_file).text);
  EXPECT_EQ(kManifest, open_text(build_file).text);
  // The build's own key is revoked the same way.
  revoke(key_id_of_file(build_public_key()));
  expect_refused(build_file, EBADMSG, "signing key revoked");
  EXPECT_EQ(kManifest, open_text(new_file).text);
}

TEST_F(QivEjsTest, AnUnsafeKeyFileIsIgnoredAndNamed) {
  const std::string path = signed_file("m.ejs", kManifest, key_pair("k").c_str());
  const std::string ignored = " ignored (not root's or writable by others)";
  const std::string other_path = signed_file("o.ejs", kManifest, key_pair("other").c_str());  // not trusted
  struct Case {
    const char *name;
    mode_t mode;
    uid_t owner;
  } cases[] = {{"writable by others", 0646, 0}, {"writable by the group", 0664, 0}, {"nobody's", 0644, 65534}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = trust("k", "k.pub", c.mode);
    ASSERT_EQ(0, chown(file.c_str(), c.owner, 0));
    // expect_refused() loads three times, through each way in; every scan
    // of the directory reports the file once.
    const std::vector<std::string> warned(3, "[warn] key file " + file + ignored + "\n");
    LogCapture capture;
    expect_refused(path, EBADMSG, "signing key not trusted: key file " + file + ignored);
    EXPECT_EQ(warned, capture.lines());
    // So does a scan for another key, which the file does not hold.
    capture.clear();
    expect_refused(other_path, EBADMSG, "signing key not trusted");
    EXPECT_EQ(warned, capture.lines());
    ASSERT_EQ(0, chown(file.c_str(), 0, 0));
    ASSERT_EQ(0, chmod(file.c_str(), 0644));
    capture.clear();
    EXPECT_EQ(kManifest, open_text(path).text) << "the same file made safe is trusted";
    EXPECT_EQ(std::vector<std::string>{}, capture.lines()) << "and not reported";
    std::filesystem::remove_all(kKeysDir);
  }
  // A link to a safe key file is not followed; another file's key, a file
  // that is no key, a directory, a named pipe (never opened, so it cannot
  // block) and hidden files do not get in the way.
  trust("k", ".hidden.pub");
  ASSERT_EQ(0, symlink(".hidden.pub", (std::string(kKeysDir) + "/link.pub").c_str()));
  expect_refused(path, EBADMSG, "signing key not trusted");
  ASSERT_TRUE(write_file(std::string(kKeysDir) + "/garbage", "not a key\n"));
  ASSERT_EQ(0, mkdir((std::string(kKeysDir) + "/sub").c_str(), 0755));
  ASSERT_EQ(0, mkfifo((std::string(kKeysDir) + "/fifo").c_str(), 0644));
  ASSERT_TRUE(write_file(std::string(kKeysDir) + "/build.pub",
                         read_file(build_public_key())));
  trust("k", "z.pub");
  EXPECT_EQ(kManifest, open_text(path).text);
}

// ---------------------------------------------------------------------------
// The earlier sealed form

TEST_F(QivEjsTest, ASealedFileOpensForConversionAndLoadsOnlyWhereAccepted) {
  ASSERT_TRUE(write_file(at("old.ejs"), sealed_form(kManifest)));
  char *text = nullptr;
  size_t length = 0;
  ASSERT_EQ(0, qiv_ejs_open_sealed_file(at("old.ejs").c_str(), &text, &length));
  EXPECT_EQ(kManifest, std::string(text, length));
  qiv_ejs_free(text);
  expect_refused(at("old.ejs"), EBADMSG, "sealed file is not signed");

  Variant sealed(QIV_EJS_SEALED_PATH);
  ASSERT_TRUE(sealed.ok()) << dlerror();
  Loaded loaded;
  load_into(&loaded, sealed.load_ex, at("old.ejs"), 0);
  ASSERT_NE(nullptr, loaded.tree);
  EXPECT_EQ("tarn_base", string_member(loaded.tree, "package"));
  // It still loads signed files, and checks both forms.
  Loaded signed_loaded;
  load_into(&signed_loaded, sealed.load_ex, signed_file("new.ejs", kManifest), 0);
  EXPECT_NE(nullptr, signed_loaded.tree);
  std::string bytes = read_file(at("old.ejs"));
  bytes[bytes.size() / 2] ^= 1;
  ASSERT_TRUE(write_file(at("old.ejs"), bytes));
  Loaded tampered;
  load_into(&tampered, sealed.load_ex, at("old.ejs"), 0);
  EXPECT_EQ(nullptr, tampered.tree);
  EXPECT_EQ(EBADMSG, tampered.error);
  EXPECT_EQ(std::string("sealed file failed authentication: ") + strerror(EBADMSG), tampered.record.text);

  // The conversion's open refuses everything else.
  for (const std::string &path : {at("old.ejs"), at("new.ejs")}) {
    SCOPED_TRACE(path);
    errno = 0;
    EXPECT_EQ(-1, qiv_ejs_open_sealed_file(path.c_str(), &text, &length));
    EXPECT_EQ(EBADMSG, errno);
  }
  errno = 0;
  EXPECT_EQ(-1, qiv_ejs_open_sealed_file(nullptr, &text, &length));
  EXPECT_EQ(EINVAL, errno);
}

// ---------------------------------------------------------------------------
// A build that also loads plain JSON

TEST_F(QivEjsTest, ThePlainBuildLoadsPlainJsonAsItStands) {
  Variant plain(QIV_EJS_PLAIN_PATH);
  ASSERT_TRUE(plain.ok()) << dlerror();
  ASSERT_TRUE(write_file(at("plain.json"), kManifest));
  Loaded loaded;
  load_into(&loaded, plain.load_ex, at("plain.json"), 0);
  ASSERT_NE(nullptr, loaded.tree);
  EXPECT_EQ("tarn_base", string_member(loaded.tree, "package"));
  EXPECT_EQ(kManifest, open_with(plain.open_file, plain.free_text, at("plain.json")).text);
  // Plain text that is no JSON fails as a parse error.
  ASSERT_TRUE(write_file(at("bad.json"), "{\"a\":"));
  Loaded bad;
  load_into(&bad, plain.load_ex, at("bad.json"), 0);
  EXPECT_EQ(nullptr, bad.tree);
  EXPECT_EQ(EINVAL, bad.error);
  EXPECT_EQ(1, bad.record.line);
}

TEST_F(QivEjsTest, ThePlainBuildStillLoadsProtectedFilesAndRefusesTamperedOnes) {
  Variant plain(QIV_EJS_PLAIN_PATH);
  ASSERT_TRUE(plain.ok()) << dlerror();
  const std::string path = signed_file("m.ejs", kManifest);
  Loaded loaded;
  load_into(&loaded, plain.load_ex, path, 0);
  ASSERT_NE(nullptr, loaded.tree);
  EXPECT_EQ("1.2.3", string_member(loaded.tree, "version"));

  const std::string good = read_file(path);
  for (size_t offset : {kHeaderSize, kHead, good.size() - 1}) {
    std::string bytes = good;
    bytes[offset] = (char)(bytes[offset] ^ 0x80);
    ASSERT_TRUE(write_file(path, bytes));
    Loaded tampered;
    load_into(&tampered, plain.load_ex, path, 0);
    EXPECT_EQ(nullptr, tampered.tree) << offset;
    EXPECT_EQ(EBADMSG, tampered.error) << offset;
  }
  // A changed header makes the file plain text, which is no JSON.
  std::string bytes = good;
  bytes[0] = 'X';
  ASSERT_TRUE(write_file(path, bytes));
  Loaded changed;
  load_into(&changed, plain.load_ex, path, 0);
  EXPECT_EQ(nullptr, changed.tree);
  EXPECT_EQ(EINVAL, changed.error);
  // A cut file too.
  ASSERT_TRUE(write_file(path, good.substr(0, good.size() - 1)));
  Loaded cut;
  load_into(&cut, plain.load_ex, path, 0);
  EXPECT_EQ(nullptr, cut.tree);
  EXPECT_EQ(EBADMSG, cut.error);
}

}  // namespace
