// The protected-JSON loader. Each input is used three times:
//  - as the bytes of a protected file, for the opener's header checks;
//  - behind the signed form's header and the build key's identifier, so
//    that it reaches the key lookup and the signature check (refused);
//  - signed with the build's secret key, so that it reaches the JSON parser
//    behind the signature. There the opener must give back exactly the
//    signed bytes, and a tree that loads must dump and load back equal.

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include <qiv_ejs/qiv_ejs.h>

#include "fuzz_support.h"

namespace {

// Reads every node of the tree through the loader's accessors.
void walk(const json_t *node, int depth) {
  if (depth > 64) return;
  if (json_is_object(node)) {
    const char *key;
    json_t *value;
    json_object_foreach(const_cast<json_t *>(node), key, value) {
      if (qiv_json_object_get_ejs(node, key) == nullptr) tarn_fuzz::fail("a key of the object is not found");
      walk(value, depth + 1);
    }
  } else if (json_is_array(node)) {
    const size_t size = qiv_json_array_size_ejs(node);
    for (size_t i = 0; i < size; ++i) walk(qiv_json_array_get_ejs(node, i), depth + 1);
    if (qiv_json_array_get_ejs(node, size) != nullptr) tarn_fuzz::fail("an array reads past its end");
  } else if (json_is_string(node)) {
    if (qiv_json_string_value_ejs(node) == nullptr) tarn_fuzz::fail("a string has no value");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string raw = tarn_fuzz::scratch() + "/raw.ejs";
  const std::string sealed = tarn_fuzz::scratch() + "/sealed.ejs";
  const std::string dumped = tarn_fuzz::scratch() + "/dumped.ejs";

  // The raw bytes.
  tarn_fuzz::write_file(raw, data, size);
  if (json_t *json = qiv_json_load_file_ejs(raw.c_str())) {
    walk(json, 0);
    qiv_json_decref_ejs(json);
  }
  char *text = nullptr;
  size_t length = 0;
  if (qiv_ejs_open_file(raw.c_str(), &text, &length) == 0) qiv_ejs_free(text);

  // The bytes behind a signed header naming the build's key: the header
  // and key identifier of the file that the build signs first.
  if (qiv_ejs_sign_file(sealed.c_str(), "", 0, QIV_EJS_BUILD_SECRET_KEY) != 0)
    tarn_fuzz::fail("an empty text cannot be signed");
  const std::string head = tarn_fuzz::read_file(sealed).substr(0, 16);
  const std::string headed = head + std::string(reinterpret_cast<const char *>(data), size);
  tarn_fuzz::write_file(raw, reinterpret_cast<const uint8_t *>(headed.data()), headed.size());
  if (qiv_ejs_open_file(raw.c_str(), &text, &length) == 0) tarn_fuzz::fail("an unsigned text opens");

  // The same bytes signed.
  if (qiv_ejs_sign_file(sealed.c_str(), data, size, QIV_EJS_BUILD_SECRET_KEY) != 0)
    tarn_fuzz::fail("the input cannot be signed");
  if (qiv_ejs_open_file(sealed.c_str(), &text, &length) != 0) tarn_fuzz::fail("a signed file does not open");
  const bool same = length == size && (size == 0 || memcmp(text, data, size) == 0);
  qiv_ejs_free(text);
  if (!same) tarn_fuzz::fail("a signed file opens to other bytes");

  if (json_t *json = qiv_json_load_file_ejs(sealed.c_str())) {
    walk(json, 0);
    qiv_json_decref_ejs(json);
  }
  json_error_t error;
  json_t *any = qiv_json_load_file_ejs_ex(sealed.c_str(), JSON_DECODE_ANY, &error);
  if (any == nullptr) return 0;
  walk(any, 0);
  if (qiv_json_sign_file_ejs(any, dumped.c_str(), JSON_ENCODE_ANY, QIV_EJS_BUILD_SECRET_KEY) != 0)
    tarn_fuzz::fail("a tree cannot be dumped");
  json_t *back = qiv_json_load_file_ejs_ex(dumped.c_str(), JSON_DECODE_ANY, nullptr);
  if (back == nullptr || !json_equal(any, back)) tarn_fuzz::fail("a dumped tree loads back different");
  qiv_json_decref_ejs(back);
  qiv_json_decref_ejs(any);
  return 0;
}
