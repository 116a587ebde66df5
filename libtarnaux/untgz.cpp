// Unpacks a gzip-compressed tar archive in one pass over the decompressed
// stream: one 512-byte block at a time, regular files and directories only,
// and nothing written outside the destination directory.

#include "untgz.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <memory>
#include <utility>

#include <tarnbase/tarn_dirutils.h>
#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_path.h>
#include <tarnbase/tarn_process.h>
#include <tarnbase/tarn_str.h>

#include "log_frame.h"
#include "tarn_apphome_internal.h"
#include "tarn_utils.h"

namespace {

constexpr int kBlockSize = 512;
constexpr size_t kPathSize = 1024;
// Each output file's write buffer: most files go out in one write.
constexpr size_t kWriteBufferSize = 64 * 1024;
// zlib's input buffer (its output buffer is twice as large): the archive is
// still read 512 bytes at a time, but inflated in large runs, which takes
// fewer instructions than zlib's 8 KB default.
constexpr unsigned kStreamBufferSize = 128 * 1024;
constexpr int kDestinationMode = 0755;
// How many checked directories stay open: an archive comes back to a
// parent after each of its subdirectories, and one would be opened again.
constexpr int kOpenDirectories = 8;

// The header fields that are read: offset and length.
constexpr size_t kModeOffset = 100;
constexpr size_t kModeLength = 8;
constexpr size_t kSizeOffset = 124;
constexpr size_t kSizeLength = 12;
constexpr size_t kTypeOffset = 156;

// The large buffers of one extraction, in one heap block per call, so
// that the call runs on a thread with a small stack (32 KiB).
struct Buffers {
  char write[kWriteBufferSize];  // the output file's write buffer
  char root[PATH_MAX];           // the destination, resolved; "" when it cannot be
  char path[kPathSize];          // the current member's path
  char directories[kOpenDirectories][kPathSize];  // the paths of the open directories
  char link[kPathSize];          // the prefix of path being checked for links
  char resolved[PATH_MAX];       // a link's target, resolved
  // One block, and a zero after it: a name without a terminator stops there.
  unsigned char block[kBlockSize + 1];
};

struct FreeBuffers {
  void operator()(Buffers *buffers) const { tarn_free_(buffers); }
};
using BuffersPtr = std::unique_ptr<Buffers, FreeBuffers>;

// Reads an octal text field of at most length characters: a zero byte ends
// it, blanks are skipped, any other character than '0'..'7' makes it
// invalid. Twelve digits at most, so the value fits.
bool parse_octal(const unsigned char *field, size_t length, uint64_t *value) {
  uint64_t result = 0;
  for (size_t i = 0; i < length && field[i] != '\0'; ++i) {
    if (field[i] == ' ') continue;
    if (field[i] < '0' || field[i] > '7') return false;
    result = result * 8 + (uint64_t)(field[i] - '0');
  }
  *value = result;
  return true;
}

// A member name that could leave the destination: absolute, with a ".."
// component, or missing (cut off by the path buffer).
bool is_unsafe_name(const char *relative) {
  if (relative == nullptr || relative[0] == '/') return true;
  for (const char *piece = relative; *piece != '\0';) {
    const char *end = strchrnul(piece, '/');
    if (end - piece == 2 && piece[0] == '.' && piece[1] == '.') return true;
    piece = *end == '/' ? end + 1 : end;
  }
  return false;
}

bool is_inside(const char *resolved, const char *root) {
  const size_t length = strlen(root);
  if (length == 0) return false;  // the destination could not be resolved
  if (strcmp(root, "/") == 0) return true;
  return strncmp(resolved, root, length) == 0 &&
         (resolved[length] == '\0' || resolved[length] == '/');
}

// Checks each existing component of the directory buffers.path from
// offset start on. Returns true when it may be used; false, with the
// offending prefix of the path in buffers.link, when a component is a
// symbolic link whose target is not inside buffers.root or cannot be
// resolved. The first component that does not exist ends the walk: what
// follows will be created as plain directories. ends_in_link tells
// whether the last component is a link (one that stays inside).
bool links_stay_inside(Buffers &buffers, size_t start, bool *ends_in_link) {
  char (&link)[kPathSize] = buffers.link;
  tarn_strlcpy(link, buffers.path, sizeof(link));
  size_t length = strlen(link);
  while (length > start && link[length - 1] == '/') --length;
  for (size_t end = start; end <= length; ++end) {
    if ((end < length && link[end] != '/') || end == start || link[end - 1] == '/') continue;
    const char kept = link[end];
    link[end] = '\0';
    struct stat st;
    if (lstat(link, &st) != 0) return true;
    if (S_ISLNK(st.st_mode)) {
      if (realpath(link, buffers.resolved) == nullptr || !is_inside(buffers.resolved, buffers.root))
        return false;
      if (end == length) *ends_in_link = true;
    }
    link[end] = kept;
  }
  return true;
}

// A file that existed keeps its mode while it is rewritten, and a
// privileged writer keeps its set-ID bits too: they go at once, so that
// neither the new data nor a stream cut short runs with them.
void drop_set_id_bits(int fd) {
  struct stat st;
  if (fstat(fd, &st) == 0 && (st.st_mode & (S_ISUID | S_ISGID)) != 0)
    fchmod(fd, st.st_mode & ~(mode_t)(S_ISUID | S_ISGID) & 07777);
}

// Logs zlib's error text for a stream that cannot be read. gzdopen names
// the stream "<fd:N>" in that text; the line names the archive in its
// place, as a stream opened by its path would.
void log_read_error(gzFile stream, const char *tgz_path, int fd) {
  int code = 0;
  const char *text = gzerror(stream, &code);
  char prefix[32];
  const int length = snprintf(prefix, sizeof(prefix), "<fd:%d>", fd);
  char named[kPathSize + 256];
  if (length > 0 && strncmp(text, prefix, (size_t)length) == 0) {
    tarn_str_snprintf(named, sizeof(named), "%s%s", tgz_path, text + length);
    text = named;
  }
  LOG(warn, "read tgz failed, err: %s", text);
}

// The file being written: its descriptor and the bytes not yet written
// out, in the call's write buffer. Closing it writes them out first, and
// a failure there goes unreported (a stream cut short keeps what it can).
class OutputFile {
 public:
  explicit OutputFile(char (&buffer)[kWriteBufferSize]) : buffer_(buffer) {}
  ~OutputFile() { close(); }
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;

  bool is_open() const { return fd_.get() >= 0; }
  int fd() const { return fd_.get(); }
  void open(int fd) {
    close();
    fd_.reset(fd);
  }
  // Each returns false, with errno set, when the data cannot be written.
  bool write(const void *data, size_t size) {
    if (used_ + size > sizeof(buffer_) && !flush()) return false;
    memcpy(buffer_ + used_, data, size);
    used_ += size;
    return true;
  }
  bool flush() {
    const char *bytes = buffer_;
    size_t left = used_;
    used_ = 0;
    while (left > 0) {
      const ssize_t written = ::write(fd_.get(), bytes, left);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) {
        if (written == 0) errno = EIO;
        return false;
      }
      bytes += written;
      left -= (size_t)written;
    }
    return true;
  }
  void close() {
    if (is_open()) {
      const int error = errno;
      (void)flush();
      errno = error;
    }
    discard();
  }
  // Closes the file without writing what is left.
  void discard() {
    used_ = 0;
    fd_.reset();
  }

 private:
  char (&buffer_)[kWriteBufferSize];
  size_t used_ = 0;
  TarnFd fd_;
};

// The state of one extraction. Its buffers live in one heap block.
class Extraction {
 public:
  Extraction(const char *destination, BuffersPtr buffers)
      : buffers_(std::move(buffers)),
        destination_(destination),
        destination_length_(strlen(destination)) {
    if (realpath(destination, root_) == nullptr) root_[0] = '\0';
  }
  Extraction(const Extraction &) = delete;
  Extraction &operator=(const Extraction &) = delete;

  // Reads the stream of the archive tgz_path, opened from descriptor fd, to
  // its end or first error, closes it, and returns the call's result.
  int32_t run(gzFile stream, const char *tgz_path, int fd);

 private:
  // What a header block leads to.
  enum class Next { kGoOn, kStop };

  Next handle_header();
  void make_directory(const char *name);
  void start_file(const char *name);
  bool open_directory(const char *name, size_t length);
  int create_file(const char *name);
  void handle_data();
  void finish_file(bool apply_mode);
  void write_failed();
  bool make_in_open_parent();
  bool admit_name(const char *name);
  void refuse_link(const char *name);
  // A refused file's data blocks are read and dropped.
  void drop_data(uint64_t size) {
    remaining_ = (uint32_t)size;
    expect_header_ = size == 0;
  }
  static constexpr int kRefused = -2;
  void join(const char *name) {
    tarn_str_snprintf(path_, sizeof(path_), "%s/%s", destination_, name);
  }

  BuffersPtr buffers_;  // out_ writes into it, so declared before out_
  char (&root_)[PATH_MAX] = buffers_->root;
  char (&path_)[kPathSize] = buffers_->path;
  char (&directory_paths_)[kOpenDirectories][kPathSize] = buffers_->directories;
  unsigned char (&block_)[kBlockSize + 1] = buffers_->block;
  const char *destination_;
  size_t destination_length_;
  int32_t result_ = 0;
  bool refused_ = false;  // a member was refused; extraction went on
  bool expect_header_ = true;
  uint32_t remaining_ = 0;  // data bytes of the current file (or refused member)
  // The directories of the last files created, checked and open: the next
  // files of the same directories are created through them, so that a
  // component of a path swapped for a link meanwhile is not followed. The
  // least recently used one is closed for a new one.
  TarnFd directories_[kOpenDirectories];
  uint64_t last_used_[kOpenDirectories] = {};
  uint64_t uses_ = 0;
  int directory_ = 0;  // the current file's
  int directory_fd() const { return directories_[directory_].get(); }
  int find_open_directory(const char *path, size_t length) const;
  int least_recently_used() const;
  void note_use(int slot) { last_used_[slot] = ++uses_; }
  size_t base_ = 0;  // the offset of the current file's name in path_
  bool created_new_ = false;  // the current file did not exist before
  const mode_t umask_ = (mode_t)tarn_process_get_umask();
  // What open(2) gives a new file made with 0666 under this umask.
  const mode_t creation_mode_ = 0666 & ~umask_;
  OutputFile out_{buffers_->write};
  int mode_ = 0;
};

int32_t Extraction::run(gzFile stream, const char *tgz_path, int fd) {
  bool quiet = false;  // the end needs no "broken archive" line
  while (result_ == 0) {
    const int got = gzread(stream, block_, kBlockSize);
    if (got < 0) {
      log_read_error(stream, tgz_path, fd);
      gzclose(stream);
      return 1;
    }
    if (got < kBlockSize) {
      // The stream ended: this is the last pass. The missing bytes of a
      // partial block read as zero.
      result_ = 1;
      memset(block_ + got, 0, (size_t)(kBlockSize - got));
    }
    if (expect_header_) {
      if (got == 0 || handle_header() == Next::kStop) {
        quiet = true;
        break;
      }
    } else if (got < kBlockSize) {
      out_.close();  // cut short: it stays, without its mode
    } else {
      handle_data();
    }
  }
  if (result_ != 0 && !quiet) LOG(warn, "broken archive\n");
  if (gzclose(stream) != Z_OK) LOG(warn, "failed gzclose\n");
  out_.close();
  return result_ != 0 || refused_ ? 1 : 0;
}

Extraction::Next Extraction::handle_header() {
  if (block_[0] == '\0') return Next::kStop;  // the end block
  uint64_t mode = 0;
  if (!parse_octal(block_ + kModeOffset, kModeLength, &mode)) {
    result_ = 1;
    return Next::kStop;
  }
  // Set-user-ID and set-group-ID bits are never extracted: an archive must
  // not be able to plant a program that runs with the extracting user's
  // rights, nor a directory whose new files take its group.
  mode_ = (int)(mode & ~(uint64_t)(S_ISUID | S_ISGID));
  const char *name = (const char *)block_;
  switch (block_[kTypeOffset]) {
    case '5':
      make_directory(name);
      break;
    case '0':
    case '\0':
      start_file(name);
      break;
    default:
      // Links, devices, long names, extended headers: ignored, and their
      // data blocks (if any) are not skipped.
      break;
  }
  return Next::kGoOn;
}

// Joins name to the destination and refuses it when it could leave it.
bool Extraction::admit_name(const char *name) {
  join(name);
  const char *relative =
      strlen(path_) > destination_length_ + 1 ? path_ + destination_length_ + 1 : nullptr;
  if (!is_unsafe_name(relative)) return true;
  LOG(warn, "unsafe member name %s -- skipping\n", name);
  refused_ = true;
  return false;
}

void Extraction::refuse_link(const char *name) {
  LOG(warn, "member %s goes through symbolic link %s -- skipping\n", name, buffers_->link);
  refused_ = true;
}

void Extraction::make_directory(const char *name) {
  if (!admit_name(name) || make_in_open_parent()) return;
  bool ends_in_link = false;
  if (!links_stay_inside(*buffers_, destination_length_ + 1, &ends_in_link)) {
    refuse_link(name);
    return;
  }
  tarn_dirutils_mkdir(path_, mode_);
}

// A directory member whose parent is one of the open directories is made
// in it by its last name alone: the parent's path was checked when it was
// opened, and mkdirat makes nothing through a link. The new directory is
// kept open for the files that follow. Returns false, having changed
// nothing, when the parent is not open or something other than a
// directory stands at the name: the checks by path then decide, as for any
// other member. A directory that cannot be made is not reported, as
// tarn_dirutils_mkdir's failure is not.
bool Extraction::make_in_open_parent() {
  size_t end = strlen(path_);
  while (end > 0 && path_[end - 1] == '/') --end;
  size_t parent_end = end;
  while (parent_end > 0 && path_[parent_end - 1] != '/') --parent_end;
  const size_t name_start = parent_end;
  while (parent_end > 0 && path_[parent_end - 1] == '/') --parent_end;
  if (parent_end == 0 || name_start == end) return false;
  const int parent_slot = find_open_directory(path_, parent_end);
  if (parent_slot < 0) return false;
  const int parent = directories_[parent_slot].get();
  char (&name)[kPathSize] = buffers_->link;
  tarn_strlcpy(name, path_ + name_start, end - name_start + 1);
  if (mkdirat(parent, name, (mode_t)mode_) != 0) {
    if (errno != EEXIST) return true;
    struct stat st;
    return fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
  }
  TarnFd made(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (made.get() < 0) return true;
  // mkdir applied the umask; the member's mode is the one wanted.
  if (((mode_t)mode_ & ~umask_) != (mode_t)mode_) fchmod(made.get(), (mode_t)mode_);
  const int slot = least_recently_used();
  directories_[slot].reset(made.release());
  tarn_strlcpy(directory_paths_[slot], path_, end + 1);
  note_use(slot);
  return true;
}

void Extraction::start_file(const char *name) {
  uint64_t size = 0;
  // The data count is a signed 32-bit value; a larger size cannot be read.
  if (!parse_octal(block_ + kSizeOffset, kSizeLength, &size) || size > INT32_MAX) {
    result_ = 1;
    return;
  }
  if (!admit_name(name)) {
    drop_data(size);
    return;
  }
  const size_t length = strlen(get_basedir(path_));
  const int open_slot = find_open_directory(path_, length);
  if (open_slot >= 0) {
    directory_ = open_slot;
    note_use(open_slot);
  } else if (!open_directory(name, length)) {
    if (result_ == 0) drop_data(size);  // refused, not failed
    return;
  }
  join(name);
  base_ = length;
  while (path_[base_] == '/') ++base_;
  const int fd = create_file(name);
  if (fd == kRefused) {
    drop_data(size);
    return;
  }
  if (fd < 0) {
    const int error = errno;
    LOG(warn, "Couldn't create %s, errcode:0x%x\n", path_, error);
    result_ = 1;
    return;
  }
  out_.open(fd);
  if (size == 0) {
    finish_file(true);
    return;
  }
  remaining_ = (uint32_t)size;
  expect_header_ = false;
}

// The slot of the open directory whose path is the first length bytes of
// path, or -1.
int Extraction::find_open_directory(const char *path, size_t length) const {
  for (int i = 0; i < kOpenDirectories; ++i) {
    if (directories_[i].get() >= 0 && strncmp(path, directory_paths_[i], length) == 0 &&
        directory_paths_[i][length] == '\0') {
      return i;
    }
  }
  return -1;
}

int Extraction::least_recently_used() const {
  int slot = 0;
  for (int i = 1; i < kOpenDirectories; ++i) {
    if (last_used_[i] < last_used_[slot]) slot = i;
  }
  return slot;
}

// With path_ cut to the directory part (length bytes) of the member name:
// checks the directory's links, makes it with the file's own mode, as it
// always has, and opens it as the directory of the next files. Returns
// false when the member is refused (refused_ set) or the directory cannot
// be opened (logged, result_ set).
bool Extraction::open_directory(const char *name, size_t length) {
  directory_ = least_recently_used();
  TarnFd &directory = directories_[directory_];
  directory.reset();
  bool ends_in_link = false;
  if (!links_stay_inside(*buffers_, destination_length_ + 1, &ends_in_link)) {
    refuse_link(name);
    return false;
  }
  if (tarn_dirutils_mkdir(path_, mode_) != 0) {
    const int error = errno;
    LOG(warn, "make base dir %s failed, errcode:0x%x\n", path_, error);
  }
  // A link that the check let through stays followed; anything else put in
  // the directory's place since is not. The destination itself is not
  // checked, and is followed as it always has been.
  const bool follow = ends_in_link || length <= destination_length_;
  directory.reset(open(path_, O_RDONLY | O_DIRECTORY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW)));
  if (directory.get() < 0) {
    const int error = errno;
    join(name);
    LOG(warn, "Couldn't create %s, errcode:0x%x\n", path_, error);
    result_ = 1;
    return false;
  }
  tarn_strlcpy(directory_paths_[directory_], path_, kPathSize);
  note_use(directory_);
  return true;
}

// Creates the file at path_ + base_ in the open directory, never through a
// link in its place, and closed on exec. Returns its descriptor; -1 with
// errno when it cannot be opened; kRefused when a link is in its place
// (refused and logged). A file that is new can hold no set-ID bits; one that
// existed loses them at once.
int Extraction::create_file(const char *name) {
  const char *base = path_ + base_;
  const int fd = openat(directory_fd(), base, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  created_new_ = fd >= 0;
  if (fd >= 0 || errno != EEXIST) return fd;
  struct stat st;
  if (fstatat(directory_fd(), base, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
    tarn_strlcpy(buffers_->link, path_, sizeof(buffers_->link));
    refuse_link(name);
    return kRefused;
  }
  const int existing = openat(directory_fd(), base, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (existing >= 0) drop_set_id_bits(existing);
  return existing;
}

void Extraction::handle_data() {
  const int32_t left = (int32_t)remaining_;
  const size_t count = left < kBlockSize ? (size_t)left : (size_t)kBlockSize;
  if (out_.is_open() && !out_.write(block_, count)) write_failed();
  remaining_ -= (uint32_t)count;
  if (remaining_ != 0) return;
  if (out_.is_open()) finish_file(result_ == 0);
  expect_header_ = true;
}

// Closes the current file, applying its mode when asked. Buffered data
// that cannot be written out counts as a failed write.
void Extraction::finish_file(bool apply_mode) {
  if (!out_.flush()) {
    write_failed();
    return;
  }
  // Through the open descriptor: a path could meanwhile name something else.
  // A file made new already has the mode that its creation gave it.
  if (apply_mode && !(created_new_ && (mode_t)mode_ == creation_mode_)) fchmod(out_.fd(), (mode_t)mode_);
  out_.discard();
}

void Extraction::write_failed() {
  const int error = errno;
  LOG(warn, "Error writing %s -- skipping, errcode:0x%x\n", path_, error);
  out_.discard();
  unlinkat(directory_fd(), path_ + base_, 0);
  result_ = 1;
}

}  // namespace

TARNAUX_API int32_t untgz_file(const char *tgz_path, const char *dest_dir) {
  if (tgz_path == nullptr) return 1;
  const char *destination = dest_dir != nullptr ? dest_dir : ".";
  if (tarn_path_is_dir_u(destination) == 0) tarn_dirutils_mkdir(destination, kDestinationMode);
  BuffersPtr buffers(static_cast<Buffers *>(tarn_zero_malloc_(sizeof(Buffers))));
  if (!buffers) {
    LOG(warn, "Out of memory\n");
    return 1;
  }
  // Only a regular file within the bound is read: the open cannot block on
  // a FIFO, and a device would never end.
  const int fd = tarn_file_open_regular(tgz_path, UNTGZ_ARCHIVE_MAX_BYTES);
  gzFile stream = fd >= 0 ? gzdopen(fd, "rb") : nullptr;
  if (stream == nullptr) {
    if (fd >= 0) close(fd);
    LOG(warn, "canot open file [%s]\n", tgz_path);
    return 1;
  }
  gzbuffer(stream, kStreamBufferSize);
  Extraction extraction(destination, std::move(buffers));
  return extraction.run(stream, tgz_path, fd);
}
