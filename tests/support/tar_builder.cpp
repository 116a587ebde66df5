#include "tar_builder.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <zlib.h>

#include <algorithm>
#include <stdexcept>

namespace tarn_test {

namespace {

std::string octal(const char *fmt, unsigned long long value) {
  char text[32];
  snprintf(text, sizeof(text), fmt, value);
  return text;
}

}  // namespace

void put_field(std::string &block, size_t offset, size_t length, const std::string &text) {
  block.replace(offset, std::min(length, text.size()), text.substr(0, length));
}

void put_checksum(std::string &block, bool good) {
  put_field(block, 148, 8, "        ");
  unsigned sum = 0;
  for (unsigned char c : block) sum += c;
  put_field(block, 148, 8, octal("%06llo", good ? sum : sum + 1) + '\0' + ' ');
}

std::string tar_header_of(const TarMember &member) {
  std::string block(kTarBlock, '\0');
  put_field(block, 0, 100, member.name);
  put_field(block, 100, 8, member.mode);
  put_field(block, 108, 8, member.uid);
  put_field(block, 116, 8, member.gid);
  put_field(block, 124, 12, member.size.empty() ? octal("%011llo", member.data.size()) : member.size);
  put_field(block, 136, 12, "14567123456");  // mtime
  block[156] = member.type;
  put_field(block, 157, 100, member.link);
  put_field(block, 257, 8, std::string("ustar\0" "00", 8));
  put_field(block, 329, 8, member.devmajor);
  put_field(block, 337, 8, member.devminor);
  put_field(block, 345, 155, member.prefix);
  put_checksum(block, member.good_checksum);
  return block;
}

std::string tar_padded(const std::string &data) {
  return data + std::string((kTarBlock - data.size() % kTarBlock) % kTarBlock, '\0');
}

std::string tar_of(const std::vector<TarMember> &members, bool end_blocks) {
  std::string tar;
  for (const TarMember &member : members) tar += tar_header_of(member) + tar_padded(member.data);
  if (end_blocks) tar += std::string(2 * kTarBlock, '\0');
  return tar;
}

std::string gzip_of(const std::string &bytes) {
  z_stream stream;
  memset(&stream, 0, sizeof(stream));
  // 16 + 15: a gzip wrapper around a 32 KiB window.
  if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 16 + 15, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("deflateInit2 failed");
  }
  std::string out(deflateBound(&stream, (uLong)bytes.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
  stream.avail_in = (uInt)bytes.size();
  stream.next_out = reinterpret_cast<Bytef *>(&out[0]);
  stream.avail_out = (uInt)out.size();
  const int result = deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  if (result != Z_STREAM_END) throw std::runtime_error("deflate did not finish");
  return out;
}

std::string noise(size_t length, unsigned seed) {
  std::string bytes(length, '\0');
  uint32_t state = seed;
  for (char &c : bytes) {
    state = state * 1103515245u + 12345u;
    c = (char)(state >> 23);
  }
  return bytes;
}

}  // namespace tarn_test
