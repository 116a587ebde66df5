// tarn-ejs -- makes, reads and checks protected JSON files (.ejs) with the
// key that libqiv_ejs.so was built with (docs/ejs.md).
//
//   tarn-ejs pack IN.json OUT.ejs     seals IN's text as it stands
//   tarn-ejs unpack IN.ejs OUT.json   writes the sealed text ("-": stdout)
//   tarn-ejs verify IN.ejs            prints "ok" when IN opens and parses
//
// Exit status 0 on success; 1 on a failure, with one line on standard error
// naming the file and the reason; 2 on wrong usage, with the usage text.
// The JSON must be an object or an array, as qiv_json_load_file_ejs loads.

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include <jansson.h>
#include <qiv_ejs/qiv_ejs.h>

namespace {

constexpr char kUsage[] =
    "usage: tarn-ejs pack IN.json OUT.ejs     seal the JSON text of IN.json into OUT.ejs\n"
    "       tarn-ejs unpack IN.ejs OUT.json   write the text sealed in IN.ejs to OUT.json\n"
    "                                         (\"-\": to standard output)\n"
    "       tarn-ejs verify IN.ejs            print \"ok\" when IN.ejs opens and parses\n";

int usage() {
  fputs(kUsage, stderr);
  return 2;
}

int failure(const std::string &file, const std::string &reason) {
  fprintf(stderr, "tarn-ejs: %s: %s\n", file.c_str(), reason.c_str());
  return 1;
}

// The reason that opening or sealing a protected file failed with error.
std::string reason_of(int error) {
  switch (error) {
    case EBADMSG:
      return "not a protected file, or changed, cut or sealed with another key";
    case EFBIG:
      return "too large (a protected file holds at most " + std::to_string(QIV_EJS_MAX_FILE_SIZE) +
             " bytes)";
    default:
      return strerror(error);
  }
}

// Checks text as qiv_json_load_file_ejs would parse it. Returns "" when it
// parses, else "line L, column C: what".
std::string parse_failure(const char *text, size_t length) {
  json_error_t error;
  json_t *tree = json_loadb(text, length, 0, &error);
  if (tree != nullptr) {
    json_decref(tree);
    return "";
  }
  return "line " + std::to_string(error.line) + ", column " + std::to_string(error.column) + ": " +
         error.text;
}

// Reads a whole file; false with errno set when it cannot.
bool read_whole(const char *path, std::string *text) {
  FILE *file = fopen(path, "rbe");
  if (file == nullptr) return false;
  char buffer[65536];
  size_t got = 0;
  while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) text->append(buffer, got);
  const bool ok = ferror(file) == 0;
  const int error = errno;
  fclose(file);
  errno = ok ? 0 : (error != 0 ? error : EIO);
  return ok;
}

// Writes text to path, or to standard output for "-". Returns 0 or an errno.
int write_whole(const char *path, const char *text, size_t length) {
  const bool to_stdout = strcmp(path, "-") == 0;
  FILE *file = to_stdout ? stdout : fopen(path, "wbe");
  if (file == nullptr) return errno;
  int error = 0;
  if (fwrite(text, 1, length, file) != length) error = errno != 0 ? errno : EIO;
  const int closed = to_stdout ? fflush(file) : fclose(file);
  if (closed != 0 && error == 0) error = errno;
  return error;
}

int pack(const char *in, const char *out) {
  std::string text;
  if (!read_whole(in, &text)) return failure(in, strerror(errno));
  const std::string bad = parse_failure(text.data(), text.size());
  if (!bad.empty()) return failure(in, "not JSON: " + bad);
  if (qiv_ejs_seal_file(out, text.data(), text.size()) != 0) return failure(out, reason_of(errno));
  return 0;
}

int unpack(const char *in, const char *out) {
  char *text = nullptr;
  size_t length = 0;
  if (qiv_ejs_open_file(in, &text, &length) != 0) return failure(in, reason_of(errno));
  const int error = write_whole(out, text, length);
  qiv_ejs_free(text);
  return error == 0 ? 0 : failure(strcmp(out, "-") == 0 ? "standard output" : out, strerror(error));
}

int verify(const char *in) {
  char *text = nullptr;
  size_t length = 0;
  if (qiv_ejs_open_file(in, &text, &length) != 0) return failure(in, reason_of(errno));
  const std::string bad = parse_failure(text, length);
  qiv_ejs_free(text);
  if (!bad.empty()) return failure(in, "the sealed text is not JSON: " + bad);
  puts("ok");
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  if (command == "-h" || command == "--help") {
    fputs(kUsage, stdout);
    return 0;
  }
  if (command == "pack" && argc == 4) return pack(argv[2], argv[3]);
  if (command == "unpack" && argc == 4) return unpack(argv[2], argv[3]);
  if (command == "verify" && argc == 3) return verify(argv[2]);
  return usage();
}
