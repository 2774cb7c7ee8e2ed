// Bytes into requests. The library splits them and is strict about their form; what it lets pass and this server does
// not take is refused here, in Policy: RFC 9112 leaves room that differs from server to server, and a request which two
// servers in a row understand differently is how a second one is smuggled past the first.
#include <algorithm>
#include <boost/beast/http/basic_parser.hpp>
#include <cstring>
#include <optional>

#include "ruxo/http_private.h"

namespace http = boost::beast::http;
using boost::beast::error_code;
using boost::beast::iequals;
using Piece = boost::beast::string_view;

namespace {

std::string_view view(Piece piece) {
  return {piece.data(), piece.size()};
}

bool is_digit(char byte) {
  return byte >= '0' && byte <= '9';
}

bool all_digits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), is_digit);
}

// What may stand in a host and its port, escapes and addresses in brackets included.
bool is_host_byte(char byte) {
  return is_digit(byte) || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte != '\0' && strchr("-._~%!$&'()*+,;=:[]", byte) != nullptr);
}

bool is_host(std::string_view text) {
  return std::all_of(text.begin(), text.end(), is_host_byte);
}

// A fragment never leaves the client, and a URL has no bytes beyond ASCII.
bool is_target_byte(char byte) {
  return byte != '#' && static_cast<signed char>(byte) > 0;
}

bool lists_chunked(std::string_view codings) {
  const http::token_list list{Piece(codings.data(), codings.size())};
  return std::any_of(list.begin(), list.end(), [](Piece one) { return iequals(one, "chunked"); });
}

}  // namespace

class ruxo::http::RequestParser::Policy final : public ::http::basic_parser<true> {
 public:
  explicit Policy(RequestParser &owner) : owner_(owner) {
    header_limit(UINT32_MAX);  // the owner counts
    body_limit(boost::none);   // the same
  }
  void set_input(std::string_view input) { input_ = input; }
  // An empty chunked body whose last chunk has not come as a whole: the library (1.81) asserts that it is not shown
  // what it already knows of it.
  bool awaits_end_of_nothing(std::string_view input) const {
    return chunked() && !chunk_seen_ && input.front() == '0' && input.size() < strlen("0\r\n\r\n");
  }

 private:
  void refuse(int status, const char *reason, error_code &ec) {
    owner_.refuse(status, reason);
    ec = ::http::error::bad_field;  // any will do: the refusal says more
  }

  void on_request_impl(::http::verb, Piece method, Piece target, int version, error_code &ec) override {
    Request &into = owner_.request;
    into.http11 = version == 11;
    into.method = into.keep(view(method));
    const size_t line_len = method.size() + target.size() + strlen("  HTTP/1.1\r\n");
    const Refusal too_much = owner_.too_long_line(method.size(), target.size(), line_len);
    if (too_much.status != 0) return refuse(too_much.status, too_much.reason, ec);
    if (!set_target(view(method), view(target))) refuse(400, "the request target is not valid", ec);
  }

  // The absolute form, which proxies use, stands for its path; its host is said in the Host field too.
  bool set_target(std::string_view method, std::string_view target) {
    if (!std::all_of(target.begin(), target.end(), is_target_byte)) return false;
    if (target == "*") {
      if (method != "OPTIONS") return false;
    } else if (target.front() != '/') {
      const size_t scheme = iequals(target.substr(0, 7), "http://")    ? 7
                            : iequals(target.substr(0, 8), "https://") ? 8
                                                                       : 0;
      const size_t host_end = std::min(target.find_first_of("/?", scheme), target.size());
      if (scheme == 0 || host_end == scheme || !is_host(target.substr(scheme, host_end - scheme)))
        return false;
      target.remove_prefix(host_end);
    }
    Request &into = owner_.request;
    const size_t mark = target.find('?');
    const std::string_view path = target.substr(0, mark);
    into.path = into.keep(path.empty() ? "/" : path);
    if (mark != std::string_view::npos) into.query = into.keep(target.substr(mark + 1));
    return true;
  }

  // A value that was put together from several lines is not where it was read.
  bool is_folded(std::string_view name, std::string_view value) const {
    const char *const name_end = name.data() + name.size();
    if (std::less<>()(value.data(), name_end) || std::less<>()(input_.data() + input_.size(), value.data()))
      return true;
    return memchr(name_end, '\n', static_cast<size_t>(value.data() - name_end)) != nullptr;
  }

  void on_field_impl(::http::field field, Piece name, Piece value, error_code &ec) override {
    if (++field_count_ > owner_.limits_.max_headers) return refuse(431, "too many header fields", ec);
    if (is_folded(view(name), view(value))) return refuse(400, "a header field is folded", ec);
    if (is_header_done()) return;  // a trailer field: what it says comes too late to be believed
    Request &into = owner_.request;
    const size_t name_at = into.keep(view(name));
    into.fields.push_back({name_at, name.size(), into.keep(view(value))});
    switch (field) {
      case ::http::field::host:
        return on_host(view(value), ec);
      case ::http::field::content_length:
        return on_content_length(view(value), ec);
      case ::http::field::transfer_encoding:
        return on_transfer_encoding(view(value), ec);
      case ::http::field::expect:
        if (!iequals(value, "100-continue")) return refuse(417, "an unknown expectation", ec);
        into.expects_continue = true;
        return;
      default:
        return;
    }
  }

  void on_host(std::string_view value, error_code &ec) {
    if (has_host_) return refuse(400, "several Host fields", ec);
    if (!is_host(value)) return refuse(400, "the Host field is not valid", ec);
    has_host_ = true;
  }

  void on_content_length(std::string_view value, error_code &ec) {
    if (has_length_) return refuse(400, "several Content-Length fields", ec);
    if (!all_digits(value)) return refuse(400, "the Content-Length field is not valid", ec);
    has_length_ = true;
  }

  void on_transfer_encoding(std::string_view value, error_code &ec) {
    if (!owner_.request.http11) return refuse(400, "a Transfer-Encoding in HTTP/1.0", ec);
    if (has_encoding_) return refuse(400, "several Transfer-Encoding fields", ec);
    has_encoding_ = true;
    if (iequals(Piece(value.data(), value.size()), "chunked")) return;
    // After any coding but a last "chunked" nobody knows where the body ends.
    if (lists_chunked(value) && !chunked())
      return refuse(400, "the Transfer-Encoding field is not valid", ec);
    refuse(501, "an unknown transfer coding", ec);
  }

  void on_header_impl(error_code &ec) override {
    Request &into = owner_.request;
    if (into.http11 && !has_host_) return refuse(400, "no Host field", ec);
    const uint64_t length = content_length().value_or(0);
    if (length > INT64_MAX) return refuse(413, "the body is too long", ec);
    into.content_length = chunked() ? -1 : static_cast<int64_t>(length);
    into.keep_alive = keep_alive();
    if (!into.http11 || !into.has_body()) into.expects_continue = false;
  }

  size_t on_body_impl(Piece body, error_code &) override {
    owner_.piece = view(body);
    return body.size();
  }

  void on_chunk_header_impl(uint64_t size, Piece, error_code &ec) override {
    if (size > owner_.max_body_ - received_) return refuse(413, "the body is too long", ec);
    received_ += size;
    chunk_seen_ = true;
  }

  size_t on_chunk_body_impl(uint64_t, Piece body, error_code &ec) override { return on_body_impl(body, ec); }

  void on_body_init_impl(const boost::optional<uint64_t> &, error_code &) override {}
  void on_finish_impl(error_code &) override {}
  void on_response_impl(int, Piece, int, error_code &) override {}

  RequestParser &owner_;
  std::string_view input_;
  uint64_t received_ = 0;  // of a chunked body, as announced
  bool chunk_seen_ = false;
  size_t field_count_ = 0;
  bool has_host_ = false;
  bool has_length_ = false;
  bool has_encoding_ = false;
};

struct ruxo::http::RequestParser::State {
  std::optional<Policy> policy;
};

namespace ruxo::http {

RequestParser::RequestParser(const ruxo_http_limits_t &limits)
    : limits_(limits), state_(std::make_unique<State>()) {
  begin();
}
RequestParser::~RequestParser() = default;

void RequestParser::begin() {
  request.clear();
  refusal = {};
  piece = {};
  state_->policy.emplace(*this);
  max_body_ = limits_.max_body;
  head_bytes_ = 0;
  begun_ = false;
  empty_line_seen_ = false;
}

RequestParser::Step RequestParser::refuse(int status, const char *reason) {
  if (refusal.status == 0) refusal = {status, reason};
  return Step::refused;
}

RequestParser::Step RequestParser::step(std::string_view *input) {
  if (refusal.status != 0) return Step::refused;
  if (state_->policy->is_done()) return Step::complete;
  if (input->empty()) return Step::need_more;
  if (state_->policy->is_header_done()) return body_step(input);
  begun_ = true;
  if (!skip_empty_line(input)) return Step::need_more;
  return head_step(input);
}

// One empty line before a request is forgiven, as RFC 9112 section 2.2 asks: some clients end a body with one.
bool RequestParser::skip_empty_line(std::string_view *input) {
  if (head_bytes_ > 0 || empty_line_seen_ || input->front() != '\r') return true;
  if (input->size() == 1) return false;
  if ((*input)[1] != '\n') return true;
  empty_line_seen_ = true;
  input->remove_prefix(2);
  return !input->empty();
}

RequestParser::Step RequestParser::head_step(std::string_view *input) {
  Policy &policy = *state_->policy;
  policy.set_input(*input);
  error_code ec;
  const size_t used = policy.put({input->data(), input->size()}, ec);
  const std::string_view line = head_bytes_ == 0 ? *input : std::string_view();
  head_bytes_ += used;
  input->remove_prefix(used);
  if (refusal.status != 0) return Step::refused;
  if (ec && ec != ::http::error::need_more) {
    const Refusal found =
        ec == ::http::error::bad_version ? meaning_of_fault(line) : Refusal{400, "the request is malformed"};
    return refuse(found.status, found.reason);
  }
  const bool done = policy.is_header_done();
  const Refusal too_much = too_long(done ? std::string_view() : *input);
  if (too_much.status != 0) return refuse(too_much.status, too_much.reason);
  return done ? Step::head : Step::need_more;
}

// A version that is well formed is another matter than one that is not.
Refusal RequestParser::meaning_of_fault(std::string_view line) const {
  line = line.substr(0, line.find('\r'));
  const std::string_view version = line.substr(line.rfind(' ') + 1);
  const bool is_version = version.size() == 8 && version != "HTTP/1.0" && version != "HTTP/1.1" &&
                          version.starts_with("HTTP/") && is_digit(version[5]) && version[6] == '.' &&
                          is_digit(version[7]);
  if (is_version) return {505, "the HTTP version is not supported"};
  return {400, "the request is malformed"};
}

// `rest` is what could not be understood yet, for want of its end. A request line beyond the header's limit has too
// long a URL, unless its method alone is beyond it: the same whether its end has come yet or not.
Refusal RequestParser::too_long(std::string_view rest) const {
  if (head_bytes_ == 0 && !rest.empty()) {
    const std::string_view line = rest.substr(0, std::min(rest.find('\n'), rest.size() - 1) + 1);
    const size_t method_len = std::min(line.find(' '), line.size());
    const std::string_view target = line.substr(std::min(method_len + 1, line.size()));
    const Refusal found = too_long_line(method_len, std::min(target.find(' '), target.size()), line.size());
    if (found.status != 0) return found;
  }
  if (head_bytes_ + rest.size() > limits_.max_header_bytes) return {431, "the header is too long"};
  return {};
}

Refusal RequestParser::too_long_line(size_t method_len, size_t target_len, size_t line_len) const {
  if (method_len > limits_.max_header_bytes) return {431, "the header is too long"};
  if (target_len > limits_.max_url || line_len > limits_.max_header_bytes)
    return {414, "the URL is too long"};
  return {};
}

RequestParser::Step RequestParser::body_step(std::string_view *input) {
  Policy &policy = *state_->policy;
  while (!input->empty()) {
    if (policy.awaits_end_of_nothing(*input)) return Step::need_more;
    piece = {};
    policy.set_input(*input);
    error_code ec;
    const size_t used = policy.put({input->data(), input->size()}, ec);
    input->remove_prefix(used);
    if (refusal.status != 0) return Step::refused;
    // Between two pieces stand the lines of the chunks, and behind the last one the trailer.
    const bool needs_more = ec == ::http::error::need_more;
    if (piece.empty() && std::max(used, needs_more ? input->size() : 0) > limits_.max_header_bytes)
      return refuse(431, "the header is too long");
    if (needs_more) return Step::need_more;
    if (ec) return refuse(400, "the body is malformed");
    if (!piece.empty()) return Step::body;
    if (policy.is_done()) return Step::complete;
  }
  return Step::need_more;
}

}  // namespace ruxo::http
