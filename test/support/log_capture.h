// Reads what a log stream was given, line by line, without formatting.
#ifndef TEST_SUPPORT_LOG_CAPTURE_H
#define TEST_SUPPORT_LOG_CAPTURE_H

#include <string>
#include <vector>

#include "ruxo/log.h"

// Points a stream handle (such as `oil_error_ls`) at a stream of its own with a memory outlet, and gives the
// handle its old value back at the end.
class LogCapture {
 public:
  explicit LogCapture(ruxo_log_stream_t *handle, const char *name = "test/capture")
      : handle_(handle), old_(*handle) {
    outlet_ = ruxo_log_outlet_memory();
    stream_ = ruxo_log_stream_new(name);
    ruxo_log_stream_remove_outlets(stream_);
    ruxo_log_stream_add_outlet(stream_, outlet_);
    ruxo_log_stream_enable(stream_);
    *handle_ = stream_;
  }
  ~LogCapture() {
    ruxo_log_flush();
    *handle_ = old_;
    ruxo_log_stream_remove_outlets(stream_);
  }
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  std::vector<std::string> lines() const {
    std::vector<std::string> result;
    const size_t count = ruxo_log_outlet_memory_count(outlet_);
    for (size_t i = 0; i < count; ++i) result.emplace_back(ruxo_log_outlet_memory_line(outlet_, i));
    return result;
  }
  void clear() { ruxo_log_outlet_memory_clear(outlet_); }

 private:
  ruxo_log_stream_t *handle_;
  ruxo_log_stream_t old_;
  ruxo_log_stream_t stream_;
  ruxo_log_outlet_t outlet_;
};

#endif
