/* A program built the way a user builds one: against the installed headers
 * and shared objects only. argv[1] names the manifest file it writes. It
 * prints what the libraries answer; check_installed_tree.sh knows what that
 * must be. */
#include <stdio.h>
#include <string.h>

#include <qiv_ejs/qiv_ejs.h>
#include <qiv_ejs/qiv_ejs_version.h>
/* Built twice: with the headers of libtarnaux named as installed,
 * <tarnaux/...>, and (TARN_CONSUMER_FLAT_INCLUDES) by their bare names, as
 * programs written for the flat include folder do. */
#ifdef TARN_CONSUMER_FLAT_INCLUDES
#include <tarn_apphome.h>
#include <tarnaux_version.h>
#include <version_mgr.h>
#else
#include <tarnaux/tarnaux.h>
#include <tarnaux/version_mgr.h>
#endif
#include <tarnbase/tarn_platform.h>
#include <tarnbase/tarnbase_version.h>

static const char *or_null(const char *text) { return text ? text : "(null)"; }

static void print_parse(const char *text) {
  version_mgr_version version = {0, 0, 0};
  char printed[32] = "";
  unsigned result = version_mgr_parser_version(text, &version);
  version_mgr_version_tostring(&version, printed, sizeof printed);
  printf("parse %s: %u %s\n", text, result, printed);
}

static void print_compare(const char *first, const char *second) {
  version_mgr_version a = {0, 0, 0}, b = {0, 0, 0};
  version_mgr_parser_version(first, &a);
  version_mgr_parser_version(second, &b);
  printf("compare %s %s: %d\n", first, second, (int)version_mgr_compare_version(a, b));
}

/* The version of the headers against the library's, and the parts against
 * the hexadecimal form. */
static void print_version(const char *name, const char *header, const char *library,
                          unsigned major, unsigned minor, unsigned patch, unsigned hex) {
  const unsigned parts = (major << 16) | (minor << 8) | patch;
  printf("%s: headers %s, library %s, 0x%06x%s\n", name, header, library, hex,
         strcmp(header, library) == 0 && parts == hex ? "" : " (mismatch)");
}

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: consumer MANIFEST SECRET_KEY\n");
    return 2;
  }
  print_version("libtarnaux", TARNAUX_VERSION_STRING, tarnaux_version_string(), TARNAUX_VERSION_MAJOR,
                TARNAUX_VERSION_MINOR, TARNAUX_VERSION_PATCH, TARNAUX_VERSION_HEX);
  print_version("libtarnbase", TARNBASE_VERSION_STRING, tarnbase_version_string(),
                TARNBASE_VERSION_MAJOR, TARNBASE_VERSION_MINOR, TARNBASE_VERSION_PATCH,
                TARNBASE_VERSION_HEX);
  print_version("libqiv_ejs", QIV_EJS_VERSION_STRING, qiv_ejs_version_string(), QIV_EJS_VERSION_MAJOR,
                QIV_EJS_VERSION_MINOR, QIV_EJS_VERSION_PATCH, QIV_EJS_VERSION_HEX);
  print_parse("3.2.17");
  print_parse("1..3");
  print_compare("1.10.0", "1.9.9");
  print_compare("1.2.3", "1.2.5");

  /* A manifest signed through libqiv_ejs (with a jansson tree made here),
   * read back by libtarnaux and by libqiv_ejs. */
  json_t *manifest = json_pack("{s:s}", "version", "4.5.6");
  printf("sign: %d\n", qiv_json_sign_file_ejs(manifest, argv[1], 0, argv[2]));
  json_decref(manifest);
  version_mgr_version version = {0, 0, 0};
  char printed[32] = "";
  unsigned result = version_mgr_get_packman_version_by_file(argv[1], &version);
  version_mgr_version_tostring(&version, printed, sizeof printed);
  printf("manifest version: %u %s\n", result, printed);
  json_t *loaded = qiv_json_load_file_ejs(argv[1]);
  printf("loaded version: %s\n",
         or_null(qiv_json_string_value_ejs(qiv_json_object_get_ejs(loaded, "version"))));
  qiv_json_decref_ejs(loaded);

  printf("cpu arch: %d\n", tarn_get_cpu_arch());
  printf("system arch: %s\n", or_null(tarn_apphome_sys_arch_str()));
  printf("companion arch: %s\n", or_null(tarn_apphome_com_arch_str()));
  return 0;
}
