#include "orlith/version.h"

const char *orlith_version() {
  return ORLITH_VERSION;
}
