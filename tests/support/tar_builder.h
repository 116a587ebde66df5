// Tar archives written byte by byte, for tests that need exact header
// fields or broken archives, and gzip compression through zlib.
#ifndef TARN_TEST_TAR_BUILDER_H
#define TARN_TEST_TAR_BUILDER_H

#include <stddef.h>

#include <string>
#include <utility>
#include <vector>

namespace tarn_test {

constexpr size_t kTarBlock = 512;

// One tar member. mode and size are the raw texts of their fields (cut to
// the field, zero-padded); an empty size is the data's length in octal. The
// data is padded to whole blocks, whatever size says. uid and gid are the
// texts of the owner fields, link the link name field, devmajor and
// devminor the device number fields, prefix the ustar prefix field.
struct TarMember {
  TarMember(std::string name_, std::string data_ = "", char type_ = '0',
            std::string mode_ = "0000644", std::string size_ = "")
      : name(std::move(name_)), data(std::move(data_)), type(type_), mode(std::move(mode_)),
        size(std::move(size_)) {}

  std::string name;
  std::string data;
  char type;
  std::string mode;
  std::string size;
  std::string uid = "0000000";
  std::string gid = "0000000";
  std::string link;
  std::string devmajor;
  std::string devminor;
  std::string prefix;
  bool good_checksum = true;
};

// Writes text into block at offset, cut to length bytes.
void put_field(std::string &block, size_t offset, size_t length, const std::string &text);

// Writes the checksum of block (the sum of its bytes with the checksum field
// as blanks) into it, as six octal digits, a zero and a blank; one more
// than the sum when good is false.
void put_checksum(std::string &block, bool good = true);

// The 512-byte ustar header block of member.
std::string tar_header_of(const TarMember &member);

// data followed by zero bytes up to a whole number of blocks.
std::string tar_padded(const std::string &data);

// The tar bytes of members, with the two zero blocks at the end or without.
std::string tar_of(const std::vector<TarMember> &members, bool end_blocks = true);

// bytes as one gzip member (no name, no time), compressed by zlib.
std::string gzip_of(const std::string &bytes);

// Bytes that do not compress: a fixed pseudo-random sequence.
std::string noise(size_t length, unsigned seed = 7);

}  // namespace tarn_test

#endif
