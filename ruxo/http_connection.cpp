// One connection.
//
//   fresh --> handshake --> head --> (body) --> handler --> sending --> head (the next request), or
//                                                  |  ^                 lingering --> closed
//                                               floating
//
// run() takes steps until one has to wait, and says for what. A step never blocks, and a connection that could go on
// for ever gives way to the others after some turns. Whoever calls run() settles what it says with the loop.
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "ruxo/guard_private.h"
#include "ruxo/http_private.h"

using ruxo::http::InputBuffer;
using ruxo::http::Phase;
using ruxo::http::Refusal;
using Step = ruxo::http::RequestParser::Step;

namespace {

constexpr unsigned kTurnsInARow = 64;                // requests, or reads of a body
constexpr uint64_t kSentInARow = uint64_t{4} << 20;  // bytes
constexpr uint64_t kMostLingeredBytes = uint64_t{1} << 20;
constexpr const char *kPlainText = "text/plain; charset=utf-8";

}  // namespace

// ---- The input ----

void InputBuffer::resize(size_t size) {
  auto larger = std::make_unique<char[]>(size);
  memcpy(larger.get(), memory_.get() + begin_, end_ - begin_);
  memory_ = std::move(larger);
  end_ -= begin_;
  begin_ = 0;
  size_ = size;
}

char *InputBuffer::room(size_t *size) {
  if (memory_ == nullptr) {
    memory_ = std::make_unique<char[]>(kFirstSize);
    size_ = kFirstSize;
  }
  if (begin_ == end_) begin_ = end_ = 0;
  if (end_ == size_) resize(begin_ > 0 ? size_ : size_ * 2);
  *size = size_ - end_;
  return memory_.get() + end_;
}

void InputBuffer::enlarge() {
  if (size_ < kLargeSize) resize(kLargeSize);
}

void InputBuffer::shrink() {
  if (begin_ != end_ || size_ <= kFirstSize) return;
  memory_.reset();
  size_ = begin_ = end_ = 0;
}

// ---- Coming and going ----

ruxo_http_connection::ruxo_http_connection(ruxo_http_server &server, ruxo::http::Lane &lane, int fd,
                                           std::string peer, bool over_limit)
    : server_(server),
      lane_(lane),
      fd_(fd),
      peer_(std::move(peer)),
      over_limit_(over_limit),
      parser_(server.limits) {
  transport_ = server.tls != nullptr ? ruxo::http::tls_transport(server.tls.get(), fd)
                                     : ruxo::http::plain_transport(fd);
  if (transport_ == nullptr) throw std::bad_alloc();
  session_.connection = this;
  session_.request = &parser_.request;
}

// A socket can be written to at once: so its own thread gets to know it.
bool ruxo_http_connection::start() {
  event_ = eventer_alloc_fd(on_event, this, fd_, EVENTER_WRITE);
  if (event_ != nullptr && ruxo::guarded(false, [&] { return lane_.add(this), true; })) {
    eventer_set_owner(event_, lane_.owner);
    if (eventer_add(event_) == 0) return true;
    lane_.remove(this);
  }
  eventer_free(event_);
  delete this;
  return false;
}

int ruxo_http_connection::begin() {
  state_ = State::handshake;
  lane_.arm(*this, Phase::handshake);
  return kAgain;
}

void ruxo_http_connection::destroy(bool loop_runs) {
  lane_.remove(this);
  const eventer_t registered = eventer_remove_fd(fd_);
  close(fd_);
  if (registered != nullptr || loop_runs)
    eventer_free(event_);  // what the loop had when it ended, it has freed
  ruxo_http_server &server = server_;
  const bool over_limit = over_limit_;
  delete this;
  server.forget(over_limit);
}

// ---- Steps ----

int ruxo_http_connection::on_event(eventer_t, int mask, void *closure, struct timeval *) {
  auto *const connection = static_cast<ruxo_http_connection *>(closure);
  return connection->settle(connection->run(mask), true);
}

int ruxo_http_connection::run(int happened) {
  running_ = true;
  turns_ = 0;
  const int mask = ruxo::guarded(static_cast<int>(kClosed), [&] {
    int next;
    do {
      next = step(happened);
      happened = 0;
    } while (next == kAgain);
    return next;
  });
  running_ = false;
  return mask;
}

void ruxo_http_connection::run_outside(int happened) {
  settle(run(happened), false);
}

int ruxo_http_connection::settle(int mask, bool in_callback) {
  if (mask == kClosed) {
    running_ = true;
    tell_aborted();
    destroy(true);
    return 0;
  }
  if (state_ == State::floating) return EVENTER_WRITE;  // the host's now; the loop does not look at it
  if (mask == 0 || !in_callback) eventer_update(event_, mask);
  return mask == 0 ? EVENTER_READ : mask;
}

int ruxo_http_connection::step(int happened) {
  if ((happened & EVENTER_TIMER) != 0) return too_slow();
  switch (state_) {
    case State::fresh:
      return begin();
    case State::handshake:
      return handshake();
    case State::head:
    case State::body:
      return receive();
    case State::handler:
      if (session_.response.ended.load(std::memory_order_acquire)) return start_sending();
      if ((happened & EVENTER_EXCEPTION) != 0 && !resumed_) return kClosed;
      return resumed_ ? 0 : EVENTER_EXCEPTION;
    case State::floating:
      return resume();
    case State::sending:
      return send();
    case State::lingering:
      return linger();
  }
  return kClosed;
}

int ruxo_http_connection::handshake() {
  const ssize_t result = transport_->handshake();
  if (result == ruxo::http::kBlocked) return transport_->wanted();
  if (result <= 0) {
    ruxo_log(ruxo::http::error_log(), "http: %s: the TLS handshake failed\n", peer());
    return kClosed;
  }
  state_ = State::head;
  lane_.arm(*this, Phase::idle);
  if (over_limit_) return refuse({503, "too many connections"});
  return kAgain;
}

int ruxo_http_connection::receive() {
  std::string_view input = input_.bytes();
  const Step what = parser_.step(&input);
  input_.drop_to(input);
  switch (what) {
    case Step::need_more:
      return read_more();
    case Step::head:
      return on_head();
    case Step::body:
      return on_body();
    case Step::complete:
      return on_complete();
    case Step::refused:
      break;
  }
  return refuse(parser_.refusal);
}

int ruxo_http_connection::read_more() {
  if (state_ == State::head && parser_.begun() && phase != Phase::head) lane_.arm(*this, Phase::head);
  if (!interim_.empty() && input_.empty()) {
    const int next = ask_for_body();
    if (next != kAgain) return next;
  }
  if (all_read_) {
    all_read_ = false;
    return EVENTER_READ;
  }
  size_t size;
  char *const room = input_.room(&size);
  const ssize_t n = transport_->read(room, size);
  if (n == ruxo::http::kBlocked) return transport_->wanted();
  if (n <= 0) return kClosed;
  const size_t count = static_cast<size_t>(n);
  input_.filled(count);
  all_read_ = count < size && transport_->short_read_is_last();
  if (state_ == State::body) {
    lane_.arm(*this, Phase::body);
    if (count == size) input_.enlarge();
    if (++turns_ > kTurnsInARow) return EVENTER_WRITE;
  }
  return kAgain;
}

int ruxo_http_connection::on_head() {
  ruxo::http::Request &request = parser_.request;
  lane_.arm(*this, Phase::none);
  keep_alive_ = request.keep_alive;
  message_done_ = !request.has_body();
  session_.route = server_.find_route(request.at(request.method), request.at(request.path));
  if (session_.route == nullptr) return answer_unrouted();
  const uint64_t max_body =
      session_.route->max_body != 0 ? session_.route->max_body : server_.limits.max_body;
  if (request.content_length > 0 && static_cast<uint64_t>(request.content_length) > max_body) {
    session_.route = nullptr;  // who has not heard of a session does not hear of its end
    return refuse({413, "the body is too long"});
  }
  parser_.set_max_body(max_body);
  state_ = State::body;
  const int next = call_handler(RUXO_HTTP_HEAD, {});
  if (next != kAgain || state_ != State::body || message_done_) return next;
  lane_.arm(*this, Phase::body);
  if (request.expects_continue && input_.empty()) interim_ = "HTTP/1.1 100 Continue\r\n\r\n";
  return kAgain;
}

// Sends, or goes on sending, the interim response that the client waits for.
int ruxo_http_connection::ask_for_body() {
  while (!interim_.empty()) {
    const struct iovec piece = {interim_.data(), interim_.size()};
    const ssize_t n = transport_->send(&piece, 1, false);
    if (n == ruxo::http::kBlocked) return transport_->wanted();
    if (n <= 0) return kClosed;
    interim_.erase(0, static_cast<size_t>(n));
  }
  return kAgain;
}

int ruxo_http_connection::on_body() {
  return call_handler(RUXO_HTTP_BODY, parser_.piece);
}

int ruxo_http_connection::on_complete() {
  message_done_ = true;
  lane_.arm(*this, Phase::none);
  state_ = State::handler;
  return call_handler(RUXO_HTTP_COMPLETE, {});
}

int ruxo_http_connection::call_handler(ruxo_http_phase_t phase_of_session, std::string_view bytes) {
  const ruxo::http::Route &route = *session_.route;
  const bool is_body = phase_of_session == RUXO_HTTP_BODY;
  const int result = route.handler(&session_, phase_of_session, is_body ? bytes.data() : nullptr,
                                   bytes.size(), route.closure);
  if (state_ == State::floating) return EVENTER_WRITE;
  if (result != 0) {
    session_.route = nullptr;  // it knows
    return refuse({500, "the request failed"});
  }
  return after_handler();
}

int ruxo_http_connection::after_handler() {
  if (session_.response.ended.load(std::memory_order_relaxed)) return start_sending();
  return kAgain;
}

int ruxo_http_connection::answer_unrouted() {
  ruxo::http::Request &request = parser_.request;
  const std::string methods = server_.allowed_methods(request.at(request.path));
  if (!methods.empty()) session_.response.header("Allow", methods);
  ruxo_http_respond(&session_, methods.empty() ? 404 : 405, kPlainText,
                    methods.empty() ? "there is nothing here\n" : "the method is not allowed here\n");
  return start_sending();
}

int ruxo_http_connection::refuse(Refusal refusal) {
  ruxo_log(ruxo::http::error_log(), "http: %s: answered %d: %s\n", peer(), refusal.status, refusal.reason);
  tell_aborted();
  keep_alive_ = false;
  session_.response.clear();
  ruxo_http_respond(&session_, refusal.status, kPlainText, (std::string(refusal.reason) + "\n").c_str());
  return start_sending();
}

// ---- The response ----

void ruxo_http_connection::end_response() {
  session_.response.ended.store(true, std::memory_order_release);
  if (state_ == State::floating || running_) return;
  run_outside(0);
}

int ruxo_http_connection::start_sending() {
  const ruxo::http::Request &request = parser_.request;
  ++requests_;
  resumed_ = false;
  session_.route = nullptr;
  const bool last = server_.limits.max_requests != 0 && requests_ >= server_.limits.max_requests;
  if (!message_done_ || last || server_.stopping.load(std::memory_order_relaxed)) keep_alive_ = false;
  const bool is_head = strcmp(request.at(request.method), "HEAD") == 0;
  session_.response.prepare(interim_, {is_head, keep_alive_, request.http11, lane_.date()});
  interim_.clear();
  state_ = State::sending;
  return kAgain;
}

int ruxo_http_connection::send() {
  using Progress = ruxo::http::Response::Progress;
  bool sent;
  const Progress progress = session_.response.send(*transport_, kSentInARow, &sent);
  if (progress == Progress::done) return after_response();
  if (progress == Progress::failed) return kClosed;
  if (sent || phase != Phase::write) lane_.arm(*this, Phase::write);
  return progress == Progress::blocked ? transport_->wanted() : EVENTER_WRITE;
}

int ruxo_http_connection::after_response() {
  session_.response.clear();
  session_.closure = nullptr;
  message_done_ = false;
  if (!keep_alive_) {
    // A close while bytes of the peer are unread would take back our last ones: he is heard to his end.
    transport_->finish();
    input_.drop_all();
    state_ = State::lingering;
    lane_.arm(*this, Phase::linger);
    return kAgain;
  }
  parser_.begin();
  state_ = State::head;
  if (input_.empty()) {
    input_.shrink();
    transport_->rest();
  }
  lane_.arm(*this, Phase::idle);
  if (server_.stopping.load(std::memory_order_relaxed) && is_idle()) return kClosed;
  return ++turns_ > kTurnsInARow ? EVENTER_WRITE : kAgain;
}

int ruxo_http_connection::linger() {
  size_t size;
  input_.drop_all();
  char *const room = input_.room(&size);
  const ssize_t n = transport_->read(room, size);
  if (n == ruxo::http::kBlocked) return transport_->wanted();
  if (n <= 0) return kClosed;
  lingered_bytes_ += static_cast<uint64_t>(n);
  return lingered_bytes_ > kMostLingeredBytes ? kClosed : kAgain;
}

// ---- Ends ----

// Not who has ended his response, though it could not be sent yet.
void ruxo_http_connection::tell_aborted() {
  const ruxo::http::Route *const route = std::exchange(session_.route, nullptr);
  if (route != nullptr && !session_.response.ended.load(std::memory_order_acquire))
    route->handler(&session_, RUXO_HTTP_ABORTED, nullptr, 0, route->closure);
}

void ruxo_http_connection::on_deadline() {
  run_outside(EVENTER_TIMER);
}

int ruxo_http_connection::too_slow() {
  if (phase == Phase::head) return refuse({408, "the header took too long"});
  if (phase == Phase::body) return refuse({408, "the body took too long"});
  if (phase == Phase::write)
    ruxo_log(ruxo::http::error_log(), "http: %s: does not take its response\n", peer());
  return kClosed;
}

bool ruxo_http_connection::is_idle() const {
  if (state_ == State::fresh || state_ == State::handshake) return true;
  return state_ == State::head && !parser_.begun() && input_.empty();
}

void ruxo_http_connection::stop_if_idle() {
  if (is_idle()) destroy(true);
}

// Whether somebody else may still use the session.
bool ruxo_http_connection::is_lent() const {
  return state_ == State::floating || resumed_;
}

bool ruxo_http_connection::is_in_request() const {
  return !is_idle() && state_ != State::lingering && !over_limit_;
}

bool ruxo_http_connection::cut() {
  const bool in_request = is_in_request();
  if (is_lent()) {
    shutdown(fd_, SHUT_RDWR);  // whose response will find no way out
    return in_request;
  }
  running_ = true;
  tell_aborted();
  destroy(true);
  return in_request;
}

bool ruxo_http_connection::abandon() {
  const bool in_request = is_in_request();
  if (is_lent() && !session_.response.ended.load(std::memory_order_acquire)) {
    shutdown(fd_, SHUT_RDWR);  // what is not given back cannot be freed
    return in_request;
  }
  running_ = true;
  tell_aborted();
  destroy(false);
  return in_request;
}

// ---- Floating ----

eventer_t ruxo_http_connection::float_event() {
  const bool head_of_bodiless = state_ == State::body && message_done_;
  if ((state_ != State::handler && !head_of_bodiless) || resumed_) return nullptr;
  if (session_.response.ended.load(std::memory_order_relaxed)) return nullptr;
  lane_.arm(*this, Phase::none);
  state_ = State::floating;
  // Back in the loop it is called at once.
  eventer_update(event_, EVENTER_WRITE);
  return event_;
}

int ruxo_http_connection::resume() {
  state_ = State::handler;
  resumed_ = true;
  return kAgain;
}

ruxo_http_connection_t *ruxo_http_session_connection(ruxo_http_session_ctx *ctx) {
  return ctx->connection;
}

eventer_t ruxo_http_connection_event_float(ruxo_http_connection_t *connection) {
  return connection->float_event();
}
