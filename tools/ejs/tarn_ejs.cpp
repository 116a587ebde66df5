// tarn-ejs -- makes, reads and checks protected JSON files (.ejs): signs
// them with a publisher's secret key, checks them against the public keys
// that libqiv_ejs.so trusts (docs/ejs.md).
//
//   tarn-ejs keygen SECRET PUBLIC              makes a key pair, prints its id
//   tarn-ejs sign --key SECRET IN.json OUT.ejs signs IN's text as it stands
//   tarn-ejs verify [--keys DIR] IN.ejs        prints the signing key's id
//   tarn-ejs inspect IN.ejs                    prints the form, key id, size
//   tarn-ejs unpack IN.ejs OUT.json            writes the signed text
//   tarn-ejs convert --key SECRET IN.ejs OUT.ejs  signs a sealed file's text
//
// Exit status 0 on success; 1 on a failure, with one line on standard error
// naming the file and the reason; 2 on wrong usage, with the usage text.
// The JSON must be an object or an array, as qiv_json_load_file_ejs loads.

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <jansson.h>
#include <qiv_ejs/qiv_ejs.h>

#include "manual_text.h"

namespace {

// The subcommands, as the usage text, the manual page and the completion
// give them.
struct Command {
  const char *name;
  const char *arguments;
  std::vector<std::string> options;  // the options among the arguments
  const char *summary;
};

const std::vector<Command> &commands() {
  static const std::vector<Command> table = {
      {"keygen", "SECRET PUBLIC", {}, "make a key pair, print its identifier"},
      {"sign", "--key SECRET IN.json OUT.ejs", {"--key"}, "sign the JSON text of IN.json into OUT.ejs"},
      {"verify", "[--keys DIR] IN.ejs", {"--keys"},
       "print the identifier of the key that signed IN.ejs when it opens and parses"},
      {"inspect", "IN.ejs", {}, "print IN.ejs's form, key identifier and size"},
      {"unpack", "IN.ejs OUT.json", {}, "write the text signed in IN.ejs to OUT.json (\"-\": to standard output)"},
      {"convert", "--key SECRET IN.ejs OUT.ejs", {"--key"}, "sign the text of the sealed file IN.ejs into OUT.ejs"},
  };
  return table;
}

std::string usage_text() {
  std::string text;
  for (const Command &command : commands()) {
    char line[512];
    const std::string call = std::string("tarn-ejs ") + command.name + " " + command.arguments;
    snprintf(line, sizeof(line), "%s%-42s  %s\n", text.empty() ? "usage: " : "       ", call.c_str(),
             command.summary);
    text += line;
  }
  return text;
}

int usage() {
  fputs(usage_text().c_str(), stderr);
  return 2;
}

// The manual page, from the same table as the usage text.
int print_man() {
  printf(".TH TARN\\-EJS 1 \"\" \"tarn-ejs\" \"User Commands\"\n");
  printf(".SH NAME\ntarn\\-ejs \\- make, read and check protected JSON files (.ejs)\n");
  printf(".SH SYNOPSIS\n");
  for (const Command &command : commands()) {
    printf(".B tarn\\-ejs %s\n%s\n.br\n", command.name, tarn_manual::roff(command.arguments).c_str());
  }
  printf(".SH DESCRIPTION\nSigns JSON files with a publisher's secret key into protected files, and\n"
         "checks, inspects and unpacks protected files against the public keys that\n"
         "libqiv_ejs.so trusts. The JSON must be an object or an array.\n");
  printf(".SH SUBCOMMANDS\n");
  for (const Command &command : commands()) {
    printf(".TP\n.B %s %s\n%s.\n", command.name, tarn_manual::roff(command.arguments).c_str(),
           tarn_manual::roff(command.summary).c_str());
  }
  printf(".SH EXIT STATUS\n");
  tarn_manual::print_block(
      "0  success\n"
      "1  a failure, with one line on standard error naming the file and the reason\n"
      "2  wrong usage, with the usage text\n");
  printf(".SH SEE ALSO\n.BR tarnctl (1)\n");
  return 0;
}

// The bash completion, from the same table as the usage text.
int print_completion() {
  std::vector<tarn_manual::CompletionEntry> entries;
  for (const Command &command : commands()) entries.push_back({command.name, command.options});
  fputs(tarn_manual::bash_completion("tarn-ejs", "--help", "", {"--key", "--keys"}, entries).c_str(), stdout);
  return 0;
}

int failure(const std::string &file, const std::string &reason) {
  fprintf(stderr, "tarn-ejs: %s: %s\n", file.c_str(), reason.c_str());
  return 1;
}

// The reason that opening or signing a protected file failed with error.
std::string reason_of(int error) {
  switch (error) {
    case EBADMSG:
      return "not a signed file, or changed, cut, or signed by a key that is not trusted";
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

// Checks that the text of in is JSON, then signs it into out.
int sign_text(const char *in, const char *out, const char *secret_key, const char *text, size_t length) {
  const std::string bad = parse_failure(text, length);
  if (!bad.empty()) return failure(in, "not JSON: " + bad);
  if (qiv_ejs_sign_file(out, text, length, secret_key) == 0) return 0;
  const int error = errno;
  // A key file that cannot be read or is no key is the key's failure.
  if (access(secret_key, R_OK) != 0 || error == EINVAL) return failure(secret_key, "not a usable secret key file");
  return failure(out, reason_of(error));
}

int keygen(const char *secret_key, const char *public_key) {
  char id[QIV_EJS_KEY_ID_SIZE];
  if (qiv_ejs_keygen(secret_key, public_key, id) != 0)
    return failure(access(secret_key, F_OK) == 0 ? secret_key : public_key, strerror(errno));
  puts(id);
  return 0;
}

int sign(const char *secret_key, const char *in, const char *out) {
  std::string text;
  if (!read_whole(in, &text)) return failure(in, strerror(errno));
  return sign_text(in, out, secret_key, text.data(), text.size());
}

int convert(const char *secret_key, const char *in, const char *out) {
  char *text = nullptr;
  size_t length = 0;
  if (qiv_ejs_open_sealed_file(in, &text, &length) != 0)
    return failure(in, errno == EBADMSG ? "not a sealed file, or changed or cut" : reason_of(errno));
  const int result = sign_text(in, out, secret_key, text, length);
  qiv_ejs_free(text);
  return result;
}

int unpack(const char *in, const char *out) {
  char *text = nullptr;
  size_t length = 0;
  if (qiv_ejs_open_file(in, &text, &length) != 0) return failure(in, reason_of(errno));
  const int error = write_whole(out, text, length);
  qiv_ejs_free(text);
  return error == 0 ? 0 : failure(strcmp(out, "-") == 0 ? "standard output" : out, strerror(error));
}

int verify(const char *keys_dir, const char *in) {
  char *text = nullptr;
  size_t length = 0;
  char id[QIV_EJS_KEY_ID_SIZE];
  if (qiv_ejs_open_file_ex(in, keys_dir, &text, &length, id) != 0) return failure(in, reason_of(errno));
  const std::string bad = parse_failure(text, length);
  qiv_ejs_free(text);
  if (!bad.empty()) return failure(in, "the signed text is not JSON: " + bad);
  puts(id);
  return 0;
}

// Reads the header of in without checking anything: its form, and for a
// signed file the identifier of the key that it names.
int inspect(const char *in) {
  std::string bytes;
  if (!read_whole(in, &bytes)) return failure(in, strerror(errno));
  const std::string magic("QIVEJS\0", 7);
  // The layouts of docs/ejs.md: header, key id, text, signature (64); header,
  // nonce (24), ciphertext, tag (16).
  const size_t signed_overhead = 8 + 8 + 64, sealed_overhead = 8 + 24 + 16;
  if (bytes.compare(0, 7, magic) != 0 || bytes.size() < 8) return failure(in, "not a protected file");
  const int form = (unsigned char)bytes[7];
  if (form == 2 && bytes.size() >= signed_overhead) {
    std::string id;
    char digits[3];
    for (size_t i = 8; i < 16; ++i) {
      snprintf(digits, sizeof(digits), "%02x", (unsigned char)bytes[i]);
      id += digits;
    }
    printf("form: signed\nkey: %s\ntext: %zu bytes\n", id.c_str(), bytes.size() - signed_overhead);
    return 0;
  }
  if (form == 1 && bytes.size() >= sealed_overhead) {
    printf("form: sealed (not signed)\ntext: %zu bytes\n", bytes.size() - sealed_overhead);
    return 0;
  }
  return failure(in, "not a protected file");
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  if (command == "-h" || command == "--help") {
    fputs(usage_text().c_str(), stdout);
    return 0;
  }
  if (command == "--print-man") return print_man();
  if (command == "--print-completion") return print_completion();
  const bool keyed = argc == 6 && strcmp(argv[2], "--key") == 0;
  if (command == "keygen" && argc == 4) return keygen(argv[2], argv[3]);
  if (command == "sign" && keyed) return sign(argv[3], argv[4], argv[5]);
  if (command == "convert" && keyed) return convert(argv[3], argv[4], argv[5]);
  if (command == "verify" && argc == 3) return verify(nullptr, argv[2]);
  if (command == "verify" && argc == 5 && strcmp(argv[2], "--keys") == 0) return verify(argv[3], argv[4]);
  if (command == "inspect" && argc == 3) return inspect(argv[2]);
  if (command == "unpack" && argc == 4) return unpack(argv[2], argv[3]);
  return usage();
}
