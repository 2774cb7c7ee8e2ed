#include "pobe/pobe.h"

const char *pobe_error_text(ssize_t code) {
  if (code >= 0) return "no error";
  switch (code) {
#define POBE_ERROR_CASE(name, number, text) \
  case number:                              \
    return text;
    POBE_ERRORS(POBE_ERROR_CASE)
#undef POBE_ERROR_CASE
    default:
      return "unknown error";
  }
}
