/* A host that wants histograms only: counts a few values and prints how many buckets they make, and their median. */
#include <stdio.h>

#include "vaskllhist/vaskllhist.h"

int main(void) {
  const double half = 0.5;
  double median = 0;
  histogram_t *h = hist_alloc();
  for (int i = 1; i <= 9; ++i)
    if (hist_insert_scaled(h, i, -1, 1) != 0) return 1;
  if (hist_quantiles(h, &half, 1, &median) != 0) return 1;
  printf("%d %g\n", hist_bucket_count(h), median);
  hist_free(h);
  return 0;
}
