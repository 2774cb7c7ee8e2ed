// Where a topology's document is kept, and how it is rewritten.
//
// The file is replaced as a whole: a copy beside it is written, synced and renamed, and the folder is synced. A crash
// at any point leaves the old document or the new one, and at worst a copy that the next save removes.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/topo/topo.h"
#include "ruxo/conf.h"

namespace {

constexpr char kFolderXpath[] = "/orlith/topology/@path|/orlith/include/topology/@path";
constexpr size_t kPathSize = 4096;  // with the NUL
constexpr size_t kLineSize = 1000;
constexpr mode_t kFileMode = 0664;

struct Free {
  void operator()(void *memory) const { free(memory); }
};
using Text = std::unique_ptr<char, Free>;

// A path in a buffer of fixed size. One that does not fit is no path: cut off, it would name another file.
class Path {
 public:
  __attribute__((format(printf, 2, 3))) void append(const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int written = vsnprintf(text_ + length_, kPathSize - length_, format, args);
    va_end(args);
    fits_ = fits_ && written >= 0 && static_cast<size_t>(written) < kPathSize - length_;
    if (fits_) length_ += static_cast<size_t>(written);
  }
  // Cuts it back to the folder that holds it, without the last "/".
  void cut_to_folder() {
    const char *slash = strrchr(text_, '/');
    length_ = slash == nullptr ? 0 : static_cast<size_t>(slash - text_);
    text_[length_] = '\0';
  }
  bool fits() const { return fits_; }
  const char *text() const { return text_; }

 private:
  char text_[kPathSize] = "";
  size_t length_ = 0;
  bool fits_ = true;
};

// The configured folder, where a relative one, or none, is that of the configuration file. False when there is no
// configuration that could tell.
bool append_folder(Path &path) {
  const Text configured(ruxo_conf_get_string(nullptr, kFolderXpath, nullptr));
  if (configured != nullptr && configured.get()[0] == '/') {
    path.append("%s", configured.get());
    return true;
  }
  char config_file[kPathSize];
  if (!ruxo_conf_config_filename(config_file, sizeof config_file)) return false;
  path.append("%s", config_file);
  path.cut_to_folder();
  path.append("/%s", configured == nullptr ? "" : configured.get());
  return true;
}

// A signature is a name in that folder, never a way out of it.
bool is_file_name(const char *name) {
  return name[0] != '\0' && name[0] != '.' && strchr(name, '/') == nullptr;
}

// Reads a field that topo_update_ip may be changing.
template <class Field>
Field load(Field &field) {
  return std::atomic_ref(field).load(std::memory_order_relaxed);
}

template <class Call>
int retry_interrupted(Call call) {
  int result = 0;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

// Whether a single write took the whole text; one that a signal kept from beginning is made again.
bool write_whole(int fd, const char *text) {
  const size_t length = strlen(text);
  ssize_t written = 0;
  do {
    written = write(fd, text, length);
  } while (written < 0 && errno == EINTR);
  return written == static_cast<ssize_t>(length);
}

// Writes one line of a node's entry. Not written in full, it stops the process.
__attribute__((format(printf, 2, 3))) void write_entry_line(int fd, const char *format, ...) {
  char write_buffer[kLineSize];
  va_list args;
  va_start(args, format);
  vsnprintf(write_buffer, sizeof write_buffer, format, args);
  va_end(args);
  if (write_whole(fd, write_buffer)) return;
  liborlith_assert_failed("write(*fd, write_buffer, strlen(write_buffer)) == (ssize_t) strlen(write_buffer)",
                          __FILE__, __LINE__);
}

// The same for the lines around the entries.
__attribute__((format(printf, 2, 3))) void write_frame_line(int fd, const char *format, ...) {
  char tmp_buf[kLineSize];
  va_list args;
  va_start(args, format);
  vsnprintf(tmp_buf, sizeof tmp_buf, format, args);
  va_end(args);
  if (write_whole(fd, tmp_buf)) return;
  liborlith_assert_failed("write(fd, tmp_buf, strlen(tmp_buf)) == (ssize_t) strlen(tmp_buf)", __FILE__,
                          __LINE__);
}

const char *side_text(topo_host_ringside_t side) {
  switch (side) {
    case TOPO_RINGSIDE_A:
      return "a";
    case TOPO_RINGSIDE_B:
      return "b";
    case TOPO_RINGSIDE_BOTH:
      return "both";
  }
  return nullptr;
}

// False when a node could not be written as an entry.
bool write_document(topo_config *tc, int fd) {
  write_frame_line(fd, "<nodes write_copies=\"%d\">\n", tc->w_count);
  if (topo_apply(tc, &fd, topo_write_entry) != tc->host_count) return false;
  write_frame_line(fd, "</nodes>\n");
  return true;
}

// Writes the document to a new file and syncs it.
bool write_copy(topo_config *tc, const char *tmp) {
  const int fd =
      retry_interrupted([tmp] { return open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode); });
  if (fd < 0) return false;
  const bool written = write_document(tc, fd) && retry_interrupted([fd] { return fsync(fd); }) == 0;
  // An interrupted close has given the descriptor back, and nothing is lost: the bytes are synced.
  const bool closed = close(fd) == 0 || errno == EINTR;
  if (written && closed) return true;
  unlink(tmp);
  return false;
}

// Makes a rename within the file's folder durable. Should that fail, a crash may bring the old file back, complete.
void sync_folder_of(const char *file) {
  Path folder;
  folder.append("%s", file);
  folder.cut_to_folder();
  folder.append("/");
  const int fd = open(folder.text(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

// Two saves at once would share the copy.
std::mutex save_lock;

}  // namespace

char *topo_find_topo_file(const char *hex_signature) {
  if (hex_signature == nullptr || !is_file_name(hex_signature)) return nullptr;
  Path path;
  if (!append_folder(path)) return nullptr;
  path.append("/%s", hex_signature);
  struct stat found;
  if (!path.fits() || stat(path.text(), &found) != 0) return nullptr;
  return strdup(path.text());
}

int topo_write_entry(topo_config *tc, host_config *hc, void *c) {
  const int fd = *static_cast<const int *>(c);
  const char *side = side_text(hc->ringside);
  const uint16_t port = ntohs(load(hc->net_port));
  const uint16_t apiport = ntohs(load(hc->net_apiport));
  // Ports change unchecked, and a document with a port of 0 does not compile: better no new file than such a one.
  if (side == nullptr || port == 0 || apiport == 0) return 0;
  in_addr address;
  address.s_addr = load(hc->net_address.s_addr);
  char address_text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address, address_text, sizeof address_text);
  write_entry_line(fd, "  <node id=\"%s\"\n", hc->id_str);
  write_entry_line(fd, "        address=\"%s\"\n", address_text);
  write_entry_line(fd, "        apiport=\"%d\"\n", apiport);
  write_entry_line(fd, "        port=\"%d\"\n", port);
  if (tc->use_side) {
    write_entry_line(fd, "        weight=\"%d\"\n", hc->weight);
    write_entry_line(fd, "        side=\"%s\"/>\n", side);
  } else {
    write_entry_line(fd, "        weight=\"%d\"/>\n", hc->weight);
  }
  return 1;
}

int topo_save(topo_config *tc) {
  if (tc == nullptr) return -1;
  const std::lock_guard one_at_a_time(save_lock);
  const Text path(topo_find_topo_file(tc->hex_signature));
  if (path == nullptr) return -1;
  Path tmp;
  tmp.append("%s.tmp", path.get());
  if (!tmp.fits()) return -1;
  unlink(tmp.text());
  if (!write_copy(tc, tmp.text())) return -1;
  if (rename(tmp.text(), path.get()) != 0) {
    unlink(tmp.text());
    return -1;
  }
  sync_folder_of(path.get());
  return 0;
}
