#include "vaskllhist/vaskllhist.h"

const char *hist_error_text(ssize_t code) {
  if (code >= 0) return "no error";
  switch (code) {
#define HIST_ERROR_CASE(name, number, text) \
  case number:                              \
    return text;
    HIST_ERRORS(HIST_ERROR_CASE)
#undef HIST_ERROR_CASE
    default:
      return "unknown error";
  }
}
