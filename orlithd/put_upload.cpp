// An upload is written aside as it comes in, on the loop, where a write only reaches the page cache; and synced and
// moved into place by a job, since that waits for the disk. What fails fails that request alone.
#include <cerrno>
#include <cstring>
#include <memory>

#include "liborlith/util/go_asynch.h"
#include "orlithd/handlers.h"

namespace {

struct Upload {
  Upload(Node &its_node, ruxo_http_session_ctx *ctx) : node(its_node), exchange(ctx) {}
  ~Upload() { node.data.discard(&file); }

  Node &node;
  Exchange exchange;
  std::string path;  // below the spool
  IncomingFile file;
  eventer_t connection = nullptr;  // while a job has it
  int error = 0;                   // of the job
};

Upload *upload_of(ruxo_http_session_ctx *ctx) {
  return static_cast<Upload *>(ruxo_http_session_closure(ctx));
}

int status_of(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return 507;
    case EISDIR:
    case ENOTDIR:
    case ELOOP:
    case ENOTEMPTY:
    case EEXIST:
      return 409;  // the path is taken by something of another kind
    case ENAMETOOLONG:
      return 400;
    case ECANCELED:
      return 503;
    default:
      return 500;
  }
}

// Ends the upload, and with it the session.
void fail(Upload *upload, int status, const char *message) {
  const std::unique_ptr<Upload> owned(upload);
  ruxo_http_session_set_closure(upload->exchange.context(), nullptr);
  ruxo_log(ruxo_error, "upload of %s: %s\n", ruxo_http_request_path(upload->exchange.context()), message);
  upload->node.data.discard(&upload->file);
  upload->exchange.error(status, message);
}

int job(eventer_t, int mask, void *closure, struct timeval *) {
  Upload *const upload = static_cast<Upload *>(closure);
  if ((mask & EVENTER_ASYNCH_WORK) != 0) {
    upload->error = upload->node.data.commit(&upload->file, upload->path);
    return 0;
  }
  if ((mask & EVENTER_ASYNCH_CANCEL) != 0) upload->error = ECANCELED;
  if (eventer_add(upload->connection) != 0) upload->error = errno;
  if (upload->error != 0) {
    fail(upload, status_of(upload->error),
         upload->error == ECANCELED ? "the node is stopping" : strerror(upload->error));
  } else {
    const std::unique_ptr<Upload> owned(upload);
    upload->exchange.text(200, "application/json", "{\"errors\": 0}\n");
  }
  return 0;
}

void begin(Node &node, ruxo_http_session_ctx *ctx) {
  auto upload = std::make_unique<Upload>(node, ctx);
  std::optional<std::string> path = upload->exchange.path_behind("/upload/");
  if (!path || path->empty())
    return fail(upload.release(), 400, "expected /upload/ and a path that stays below it");
  upload->path = std::move(*path);
  const int error = node.data.begin_incoming(&upload->file);
  if (error != 0) {
    upload->file.name.clear();
    return fail(upload.release(), status_of(error), strerror(error));
  }
  ruxo_http_session_set_closure(ctx, upload.release());
}

void finish(Upload *upload) {
  ruxo_http_connection_t *const connection = ruxo_http_session_connection(upload->exchange.context());
  upload->connection = ruxo_http_connection_event_float(connection);
  if (upload->connection == nullptr) return fail(upload, 500, "the connection is not on its loop");
  eventer_remove_fd(eventer_get_fd(upload->connection));
  orlith_http_go_asynch(upload->node.jobs, job, upload, connection);
}

}  // namespace

int put_upload(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *bytes, size_t len,
               void *closure) {
  try {
    if (phase == RUXO_HTTP_HEAD) {
      begin(*static_cast<Node *>(closure), ctx);
      return 0;
    }
  } catch (...) {
    return -1;
  }
  Upload *const upload = upload_of(ctx);
  if (upload == nullptr) return 0;
  if (phase == RUXO_HTTP_ABORTED) {
    delete upload;
  } else if (phase == RUXO_HTTP_COMPLETE) {
    finish(upload);
  } else if (const int error = DataFolder::append(upload->file, bytes, len)) {
    fail(upload, status_of(error), strerror(error));
  }
  return 0;
}
