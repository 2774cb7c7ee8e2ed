#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ruxo/http.h"
#include "test/abi/abi_checks.h"

struct job {
  ruxo_http_session_ctx *ctx;
  eventer_t connection;
};

static int run_job(eventer_t e, int mask, void *closure, struct timeval *now) {
  struct job *job = closure;
  (void)e, (void)now;
  if (mask == EVENTER_ASYNCH_WORK) {
    ruxo_http_respond(job->ctx, 202, "text/plain", "by a job");
    return 0;
  }
  CHECK(eventer_add(job->connection) == 0);
  free(job);
  return 0;
}

static void float_it(ruxo_http_session_ctx *ctx) {
  struct job *job = malloc(sizeof *job);
  if (job == NULL) abort();
  job->ctx = ctx;
  job->connection = ruxo_http_connection_event_float(ruxo_http_session_connection(ctx));
  CHECK(job->connection != NULL && eventer_remove_fd(eventer_get_fd(job->connection)) == job->connection);
  eventer_t e = eventer_alloc_asynch(run_job, job);
  eventer_set_owner(e, eventer_get_owner(job->connection));
  eventer_add_asynch(NULL, e);
}

static int answer(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *bytes, size_t len,
                  void *closure) {
  if (phase == RUXO_HTTP_HEAD) {
    ruxo_http_session_set_closure(ctx, closure);
    CHECK(ruxo_http_request_content_length(ctx) == 3);
  }
  if (phase == RUXO_HTTP_BODY) CHECK(len == 3 && memcmp(bytes, "abc", 3) == 0);
  if (phase != RUXO_HTTP_COMPLETE) return 0;
  FILE *file = fopen("http_body", "rb");
  if (file == NULL) abort();
  CHECK(ruxo_http_session_closure(ctx) == closure);
  CHECK_TEXT(ruxo_http_request_method(ctx), "PUT");
  CHECK_TEXT(ruxo_http_request_path(ctx), "/put");
  CHECK_TEXT(ruxo_http_request_query(ctx), "q");
  CHECK_TEXT(ruxo_http_request_header(ctx, "host"), "a");
  CHECK(strncmp(ruxo_http_request_peer(ctx), "127.0.0.1:", 10) == 0);
  ruxo_http_response_status(ctx, 201);
  CHECK(ruxo_http_response_header(ctx, "X-One", "1"));
  CHECK(ruxo_http_response_append(ctx, "<", 1));
  CHECK(ruxo_http_response_append_mmap_from_fd(ctx, fileno(file), 4, 0, 0));
  ruxo_http_response_end(ctx);
  fclose(file);
  return 0;
}

static int answer_by_job(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *bytes, size_t len,
                         void *closure) {
  (void)bytes, (void)len, (void)closure;
  if (phase == RUXO_HTTP_COMPLETE) float_it(ctx);
  return 0;
}

/* Everything that the server says until it closes. */
static char *ask(int port, const char *request) {
  static char text[4096];
  size_t len = 0;
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  CHECK(connect(fd, (struct sockaddr *)&address, sizeof address) == 0);
  CHECK(write(fd, request, strlen(request)) == (ssize_t)strlen(request));
  for (ssize_t n; (n = read(fd, text + len, sizeof text - 1 - len)) > 0;) len += (size_t)n;
  text[len] = '\0';
  close(fd);
  return text;
}

void call_http(void) {
  ruxo_http_limits_t limits;
  ruxo_http_limits_default(&limits);
  CHECK(limits.max_url == 8192 && limits.max_body == 1048576 && limits.write_timeout_ms == 30000);
  ruxo_http_server_t *server = ruxo_http_server_new(&limits);
  char *err = NULL;
  CHECK(ruxo_http_server_tls(server, "nowhere", "nowhere", &err) == -1 && err != NULL);
  free(err);
  abi_write_file("http_body", "body");
  CHECK(ruxo_http_server_route(server, "PUT", "/put", 10, answer, &limits) == 0);
  CHECK(ruxo_http_server_route(server, "GET", "/job", 0, answer_by_job, NULL) == 0);
  CHECK(eventer_start(1) == 0);
  int port = ruxo_http_server_listen(server, "127.0.0.1", 0, &err);
  CHECK(port > 0 && err == NULL);
  const char *text =
      ask(port, "PUT /put?q HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nConnection: close\r\n\r\nabc");
  CHECK(strncmp(text, "HTTP/1.1 201 Created\r\n", 22) == 0 && strstr(text, "\r\nX-One: 1\r\n") != NULL);
  CHECK_TEXT(text + strlen(text) - 9, "\r\n\r\n<body");
  text = ask(port, "GET /job HTTP/1.0\r\n\r\n");
  CHECK(strncmp(text, "HTTP/1.1 202 Accepted\r\n", 23) == 0 && strstr(text, "\r\n\r\nby a job") != NULL);
  CHECK(ruxo_http_server_stop(server, 1000) == 0);
  eventer_stop();
  char path[8];
  CHECK(ruxo_http_percent_decode("%41b", path, sizeof path) == 2);
  CHECK_TEXT(path, "Ab");
  CHECK(ruxo_http_safe_path("a/b", path, sizeof path) == 3 &&
        ruxo_http_safe_path("../b", path, sizeof path) == -1);
}
