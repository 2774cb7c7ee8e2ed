// What the code under test asks of libcurl's handles, and refusals of it.
//
// A test program has this in everything it links statically, through orlith_curl_calls() in test/CMakeLists.txt. All of
// it is about the calling thread only.
#ifndef TEST_SUPPORT_CURL_CALLS_H
#define TEST_SUPPORT_CURL_CALLS_H

#include <curl/curl.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace curl_calls {

// The options set since the last clear(), in order; with the text for CURLOPT_CAINFO and CURLOPT_URL, else "".
inline thread_local std::vector<std::pair<CURLoption, std::string>> options;
inline thread_local std::set<CURLoption> refused;
inline thread_local std::set<CURLINFO> refused_infos;
inline thread_local bool no_handles = false;
// Replaces any CURLOPT_TIMEOUT_MS unless 0: no test waits for a time-out that is fixed in seconds.
inline thread_local long timeout_ms = 0;
inline thread_local std::vector<long> timeouts_asked;

// For the life of the object.
struct Refuse {
  explicit Refuse(CURLoption option) { refused = {option}; }
  ~Refuse() { refused.clear(); }
};
struct RefuseInfo {
  explicit RefuseInfo(std::set<CURLINFO> infos) { refused_infos = std::move(infos); }
  ~RefuseInfo() { refused_infos.clear(); }
};
struct RefuseHandles {
  RefuseHandles() { no_handles = true; }
  ~RefuseHandles() { no_handles = false; }
};
struct HurryTimeouts {
  explicit HurryTimeouts(long ms) { timeout_ms = ms; }
  ~HurryTimeouts() { timeout_ms = 0; }
};

}  // namespace curl_calls

#endif
