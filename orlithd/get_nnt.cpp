#include <cerrno>
#include <cstring>

#include "orlithd/handlers.h"
#include "orlithd/nnt_request.h"

void get_nnt(Node &node, Exchange &exchange) {
  const std::optional<NntRequest> request = nnt_request(exchange, "/nnt/");
  if (!request) return exchange.error(400, kNntExpected);
  struct stat info {};
  const OwnedFd file = node.data.open_file(request->file(), &info);
  if (file.valid()) return exchange.file(file.get(), static_cast<size_t>(info.st_size));
  // A link, or a file where a folder should be, is no rollup file either.
  const bool absent = errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
  exchange.error(absent ? 404 : 500, absent ? "there is no such rollup file" : strerror(errno));
}
