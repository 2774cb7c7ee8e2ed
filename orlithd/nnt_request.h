// Which rollup file a request names.
#ifndef ORLITHD_NNT_REQUEST_H
#define ORLITHD_NNT_REQUEST_H

#include <optional>
#include <string>

#include "orlithd/exchange.h"
#include "ruxo/uuid.h"

inline constexpr char kNntExpected[] =
    "expected /nnt/<period in seconds>/<check uuid>/<metric name in its path form>";

struct NntRequest {
  std::string period;  // decimal
  ruxo_uuid_t check;
  std::string check_text;  // lower case
  std::string encoded;     // the metric's name in its path form
  std::string name;

  // Below the data folder.
  std::string file() const;
};

// From the path behind `prefix`, "<period>/<check uuid>/<path form>"; nothing where it is not that.
std::optional<NntRequest> nnt_request(const Exchange &exchange, std::string_view prefix);

#endif
