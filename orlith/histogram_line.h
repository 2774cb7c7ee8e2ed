// Histogram lines inside a stream that holds M lines too: a line whose first field begins with H.
#ifndef ORLITH_HISTOGRAM_LINE_H
#define ORLITH_HISTOGRAM_LINE_H

#include <string>

#include "liborlith/orollupd/rollup.h"
#include "orlith/locator.h"

// Goes on where mline_split stopped with the code 0, as it does at every line that is no M line: cuts what begins at
// the timestamp into timestamp, check, name and histogram text (the value), with the type of a histogram. 1, or as the
// histogram line's own decoder -2, -3, -4.
int histogram_line_split(mline_fields_t *fields);

// The locator, of type histogram, of a line that was split; null with *code (-6 to -8). Refusals are not logged:
// who has the line tells it better.
Locator histogram_line_locator(const mline_fields_t &fields, int *code);

// "<check uuid>-<canonical name>".
std::string locator_key(const orlith_metric_locator_t *locator);

// Starts the library with the stream switched off on which it logs each refused name.
void start_library();

#endif
