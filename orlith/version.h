// The tool's own version text.
#ifndef ORLITH_VERSION_H
#define ORLITH_VERSION_H

const char *orlith_version();

#endif
