// Every option takes one argument of a word, which is handed through as it is.
#include "test/support/curl_calls.h"

#include <cstdarg>
#include <cstdint>

extern "C" {
CURL *__real_curl_easy_init(void);
CURL *__wrap_curl_easy_init(void);
CURLcode __real_curl_easy_setopt(CURL *curl, CURLoption option, ...);
CURLcode __real_curl_easy_getinfo(CURL *curl, CURLINFO info, ...);
CURLcode __wrap_curl_easy_setopt(CURL *curl, CURLoption option, ...);
CURLcode __wrap_curl_easy_getinfo(CURL *curl, CURLINFO info, ...);

CURL *__wrap_curl_easy_init(void) {
  return curl_calls::no_handles ? nullptr : __real_curl_easy_init();
}

CURLcode __wrap_curl_easy_setopt(CURL *curl, CURLoption option, ...) {
  va_list args;
  va_start(args, option);
  auto argument = va_arg(args, intptr_t);
  va_end(args);
  const bool has_text = option == CURLOPT_CAINFO || option == CURLOPT_URL;
  curl_calls::options.emplace_back(option, has_text ? reinterpret_cast<const char *>(argument) : "");
  if (curl_calls::refused.count(option) != 0) return CURLE_UNKNOWN_OPTION;
  if (option == CURLOPT_TIMEOUT_MS && curl_calls::timeout_ms != 0) {
    curl_calls::timeouts_asked.push_back(static_cast<long>(argument));
    argument = curl_calls::timeout_ms;
  }
  return __real_curl_easy_setopt(curl, option, argument);
}

CURLcode __wrap_curl_easy_getinfo(CURL *curl, CURLINFO info, ...) {
  va_list args;
  va_start(args, info);
  void *const result = va_arg(args, void *);
  va_end(args);
  if (curl_calls::refused_infos.count(info) != 0) return CURLE_UNKNOWN_OPTION;
  return __real_curl_easy_getinfo(curl, info, result);
}
}
