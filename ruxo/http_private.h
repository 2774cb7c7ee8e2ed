// How the HTTP server is put together.
//
//   http_server.cpp      servers: routes, listening, accepting, stopping
//   http_lane.cpp        what the connections of one loop thread share: deadlines, the date, being stopped
//   http_connection.cpp  one connection: its states and who is called in them
//   http_parse.cpp       bytes into requests; the only file that sees the library which parses
//   http_request.cpp     what handlers ask about a request
//   http_response.cpp    responses: building and sending
//   http_transport.cpp   bytes over a socket
//   http_tls.cpp         the same over TLS
//
// Threads: a connection, and all of a lane but its set of connections, is touched by its loop thread only. A floating
// connection is the exception: its session belongs to the host until the event is back in the loop.
#ifndef RUXO_HTTP_PRIVATE_H
#define RUXO_HTTP_PRIVATE_H

#include <sys/uio.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <forward_list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "ruxo/http.h"
#include "ruxo/log.h"

struct ssl_ctx_st;

namespace ruxo::http {

class Lane;

// Where refused requests are told of: the stream "error/http" where the host has given it an outlet, else the global
// one.
ruxo_log_stream_t error_log();

// ---- Requests ----

// Why a request is not served: what the client is answered. A status of 0 means that it is.
struct Refusal {
  int status = 0;
  const char *reason = nullptr;  // lives for ever
};

// What was said in the head of a request. The strings lie in one text, each with a NUL behind it.
struct Request {
  static constexpr size_t kNone = SIZE_MAX;
  struct Field {
    size_t name;
    size_t name_len;
    size_t value;
  };

  std::string text;
  std::vector<Field> fields;
  std::forward_list<std::string> joined;  // the values of fields that came several times, once asked for
  size_t method = 0;
  size_t path = 0;
  size_t query = kNone;
  int64_t content_length = 0;  // -1: chunked
  bool http11 = false;
  bool keep_alive = false;
  bool expects_continue = false;

  const char *at(size_t offset) const { return text.c_str() + offset; }
  size_t keep(std::string_view bytes);  // its offset
  bool has_body() const { return content_length != 0; }
  const char *header(std::string_view name);
  void clear();
};

class RequestParser {
 public:
  // body: `piece` is one, and lies in the input.
  enum class Step { need_more, head, body, complete, refused };

  explicit RequestParser(const ruxo_http_limits_t &limits);
  ~RequestParser();

  // Makes ready for the next request.
  void begin();
  // Takes one thing off the front of the input. After `complete` and `refused` it does nothing more.
  Step step(std::string_view *input);
  // Whether anything of the request has been seen, be it incomplete.
  bool begun() const { return begun_; }
  void set_max_body(uint64_t max_body) { max_body_ = max_body; }

  Request request;
  Refusal refusal;
  std::string_view piece;

 private:
  class Policy;
  struct State;

  bool skip_empty_line(std::string_view *input);
  Step head_step(std::string_view *input);
  Step body_step(std::string_view *input);
  Step refuse(int status, const char *reason);
  Refusal meaning_of_fault(std::string_view line) const;
  Refusal too_long_line(size_t method_len, size_t target_len, size_t line_len) const;
  Refusal too_long(std::string_view rest) const;

  const ruxo_http_limits_t &limits_;
  std::unique_ptr<State> state_;
  uint64_t max_body_ = 0;
  size_t head_bytes_ = 0;
  bool begun_ = false;
  bool empty_line_seen_ = false;
};

// ---- Bytes over a connection ----

// The result of a transport's call: a number of bytes above 0, or one of these.
inline constexpr ssize_t kEnd = 0;       // the peer sends no more; of a file: it has become shorter
inline constexpr ssize_t kBlocked = -1;  // wait for wanted()
inline constexpr ssize_t kFailed = -2;

class Transport {
 public:
  virtual ~Transport() = default;
  // 1 when bytes can flow.
  virtual ssize_t handshake() = 0;
  virtual ssize_t read(char *buff, size_t size) = 0;
  // After kBlocked the next call, of either, must begin with the same bytes.
  virtual ssize_t send(const struct iovec *pieces, int count, bool more_follows) = 0;
  virtual ssize_t send_file(int file, uint64_t offset, uint64_t len) = 0;
  // Says that no more will be sent.
  virtual void finish() = 0;
  // Gives back memory that only a busy connection needs.
  virtual void rest() {}
  // Whether a read that did not fill its buffer has taken all there was.
  virtual bool short_read_is_last() const = 0;
  // The mask to wait for after kBlocked.
  int wanted() const { return wanted_; }

 protected:
  int wanted_ = 0;
};

std::unique_ptr<Transport> plain_transport(int fd);
std::unique_ptr<Transport> tls_transport(ssl_ctx_st *context, int fd);  // null without memory
using TlsContext = std::shared_ptr<ssl_ctx_st>;
// Null and *err when they do not load.
TlsContext tls_context(const char *certificate_file, const char *key_file, std::string *err);

// Reads up to `size` bytes of a file at an offset, as pread(2) does, but not interrupted.
ssize_t read_file_at(int file, char *buff, size_t size, uint64_t offset);

// ---- Responses ----

const char *reason_phrase(int status);

class Response {
 public:
  enum class Progress { done, more, blocked, failed };
  struct Ending {
    bool head_only;  // the request was a HEAD
    bool keep_alive;
    bool http11;  // the request was
    const char *date;
  };

  Response() = default;
  ~Response() { clear(); }
  Response(const Response &) = delete;
  Response &operator=(const Response &) = delete;

  void set_status(int status);
  bool header(std::string_view name, std::string_view value);
  bool append(const void *bytes, size_t len);
  bool append_file(int fd, uint64_t len, off_t offset);
  void clear();

  // From here on only send(): `before` goes out first.
  void prepare(std::string_view before, const Ending &ending);
  // Sends until done or blocked, or `budget` bytes have left; `sent` is set to whether any did.
  Progress send(Transport &transport, uint64_t budget, bool *sent);

  std::atomic<bool> ended = false;  // set by the host, on its thread while the connection floats

 private:
  struct Piece {
    int fd;  // -1: in body_
    uint64_t offset;
    uint64_t len;
  };
  int gather(struct iovec *pieces, int room, bool *file_follows) const;
  void advance(uint64_t sent);

  int status_ = 200;
  std::string headers_;
  std::string body_;
  std::vector<Piece> pieces_;
  uint64_t length_ = 0;
  // While it is sent:
  std::string head_;
  size_t head_sent_ = 0;
  size_t next_piece_ = 0;
  uint64_t piece_sent_ = 0;
};

// ---- Routes ----

struct Route {
  std::string method;
  std::string path;
  uint64_t max_body;
  ruxo_http_handler_f handler;
  void *closure;

  bool covers(std::string_view other) const {
    return path.ends_with('/') ? other.starts_with(path) : other == path;
  }
  bool answers(std::string_view other) const {
    return method == other || (method == "GET" && other == "HEAD");
  }
};

// ---- Deadlines ----

// What a connection may take too long for. Each has one time-out, so the first one armed is the first one due.
enum class Phase { handshake, idle, head, body, write, linger, none };
inline constexpr size_t kPhases = static_cast<size_t>(Phase::none);

// What is read and not yet understood.
class InputBuffer {
 public:
  std::string_view bytes() const { return {memory_.get() + begin_, end_ - begin_}; }
  bool empty() const { return begin_ == end_; }
  void drop_to(std::string_view rest) { begin_ = end_ - rest.size(); }
  void drop_all() { begin_ = end_ = 0; }
  // Room to read into, at least one byte. Throws without memory.
  char *room(size_t *size);
  void filled(size_t count) { end_ += count; }
  // Reads have been filling it: make them larger.
  void enlarge();
  // Back to its first size, when empty.
  void shrink();

 private:
  static constexpr size_t kFirstSize = 4096;
  static constexpr size_t kLargeSize = 65536;
  void resize(size_t size);

  std::unique_ptr<char[]> memory_;
  size_t size_ = 0;
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace ruxo::http

struct ruxo_http_session_ctx {
  ruxo_http_connection_t *connection = nullptr;
  ruxo::http::Request *request = nullptr;
  ruxo::http::Response response;
  const ruxo::http::Route *route = nullptr;  // set while the handler is to be told of what happens
  void *closure = nullptr;
};

struct ruxo_http_connection {
 public:
  // A connection that is over the limit is told so and closed.
  ruxo_http_connection(ruxo_http_server &server, ruxo::http::Lane &lane, int fd, std::string peer,
                       bool over_limit);
  ruxo_http_connection(const ruxo_http_connection &) = delete;
  ruxo_http_connection &operator=(const ruxo_http_connection &) = delete;

  // Hands it to its loop thread. False, and it is the caller's, when that is not possible.
  bool start();

  // ---- For its lane ----
  void on_deadline();
  void stop_if_idle();
  // Ends it now. Whether a request was cut short.
  bool cut();
  // The same when its loop thread has ended.
  bool abandon();

  // ---- For its session ----
  void end_response();
  eventer_t float_event();

  const char *peer() const { return peer_.c_str(); }
  const ruxo::http::Lane &lane() const { return lane_; }
  bool over_limit() const { return over_limit_; }

  // Where it stands among the connections with the same deadline. The lane's.
  ruxo_http_connection *earlier = nullptr;
  ruxo_http_connection *later = nullptr;
  ruxo::http::Phase phase = ruxo::http::Phase::none;
  uint64_t deadline_ms = 0;

 private:
  enum class State { fresh, handshake, head, body, handler, floating, sending, lingering };
  // What a step comes to, where it is not a mask to wait for: 0 waits for nothing.
  static constexpr int kAgain = -1;
  static constexpr int kClosed = -2;

  ~ruxo_http_connection() = default;
  static int on_event(eventer_t e, int mask, void *closure, struct timeval *now);
  int run(int happened);
  void run_outside(int happened);
  int settle(int mask, bool in_callback);
  int step(int happened);
  int begin();
  int handshake();
  int receive();
  int read_more();
  int on_head();
  int on_body();
  int on_complete();
  int call_handler(ruxo_http_phase_t phase_of_session, std::string_view bytes);
  int after_handler();
  int ask_for_body();
  int resume();
  int answer_unrouted();
  int refuse(ruxo::http::Refusal refusal);
  int start_sending();
  int send();
  int after_response();
  int linger();
  int too_slow();
  void tell_aborted();
  bool is_idle() const;
  bool is_lent() const;
  bool is_in_request() const;
  void destroy(bool loop_runs);

  ruxo_http_server &server_;
  ruxo::http::Lane &lane_;
  const int fd_;
  const std::string peer_;
  const bool over_limit_;
  eventer_t event_ = nullptr;
  std::unique_ptr<ruxo::http::Transport> transport_;
  ruxo::http::InputBuffer input_;
  ruxo::http::RequestParser parser_;
  ruxo_http_session_ctx session_;
  std::string interim_;  // of an interim response, what could not be sent at once
  State state_ = State::fresh;
  unsigned requests_ = 0;
  unsigned turns_ = 0;
  uint64_t lingered_bytes_ = 0;
  bool running_ = false;       // inside run()
  bool all_read_ = false;      // the last read has taken all there was
  bool message_done_ = false;  // the request has been read to its end
  bool keep_alive_ = false;
  bool resumed_ = false;  // the host's, though back in the loop
};

namespace ruxo::http {

// What the connections of one loop thread share.
class Lane {
 public:
  Lane(ruxo_http_server &its_server, pthread_t its_owner);
  Lane(const Lane &) = delete;
  Lane &operator=(const Lane &) = delete;

  // Starts a connection's time for a phase anew; Phase::none stops it.
  void arm(ruxo_http_connection &connection, Phase phase);
  // The Date field's value now.
  const char *date();

  void add(ruxo_http_connection *connection);
  void remove(ruxo_http_connection *connection);

  // On its thread, soon: `work`. The server waits for it.
  void post(void (*work)(Lane &lane));
  void stop_idle();
  // Ends all connections, and the timer.
  void cut_all();
  // The same when the loop thread has ended.
  void abandon_all();

  const pthread_t owner;
  ruxo_http_server &server;
  size_t cut_count = 0;

 private:
  struct Queue {
    ruxo_http_connection *first = nullptr;
    ruxo_http_connection *last = nullptr;
  };
  static int on_timer(eventer_t e, int mask, void *closure, struct timeval *now);
  static int on_task(eventer_t e, int mask, void *closure, struct timeval *now);
  std::vector<ruxo_http_connection *> all();
  void unlink(ruxo_http_connection &connection);
  void set_timer(uint64_t at_ms, uint64_t now_ms);
  void stop_timer();
  void expire();
  uint64_t timeout_ms(Phase phase) const;

  std::mutex lock_;
  std::unordered_set<ruxo_http_connection *> connections_;  // guarded by lock_
  std::array<Queue, kPhases> queues_;
  eventer_t timer_ = nullptr;
  uint64_t timer_at_ms_ = 0;
  int64_t date_second_ = -1;
  char date_[32] = "";
};

}  // namespace ruxo::http

struct ruxo_http_server {
  struct Listener {
    ruxo_http_server *server;
    int fd;
    int spare_fd;  // given up for a moment where there are no descriptors left, to turn a client away
  };

  int add_route(ruxo::http::Route route);
  const ruxo::http::Route *find_route(std::string_view method, std::string_view path) const;
  // The methods that a path is known under, as Allow has them; empty when it is not known.
  std::string allowed_methods(std::string_view path) const;

  int listen(const char *address, uint16_t port, std::string *err);
  size_t stop(uint64_t grace_ms) noexcept;
  void forget(bool over_limit);  // a connection has ended; may free the server
  void task_done();

  ruxo_http_limits_t limits;
  std::vector<ruxo::http::Route> routes;  // the longest path first; fixed once it listens
  ruxo::http::TlsContext tls;
  std::atomic<bool> stopping = false;

 private:
  static int on_accept(eventer_t e, int mask, void *closure, struct timeval *now);
  bool accept_one(Listener &listener);
  void turn_away(Listener &listener);
  void take_in(int fd, std::string peer);
  ruxo::http::Lane &next_lane();
  void for_all_lanes(void (*work)(ruxo::http::Lane &lane));
  void release();

  std::vector<std::unique_ptr<Listener>> listeners_;
  std::atomic<unsigned> connections_ = 0;
  std::atomic<unsigned> over_limit_ = 0;
  std::atomic<size_t> references_ = 1;  // the host's, and one for each connection
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::unique_ptr<ruxo::http::Lane>>
      lanes_;               // guarded by lock_; one for each loop thread, once used
  size_t tasks_ = 0;        // guarded by lock_
  unsigned next_loop_ = 0;  // guarded by lock_
};

#endif
