// What an ingestion run tells at its end, for people and as JSON.
#ifndef ORLITH_INGEST_SUMMARY_H
#define ORLITH_INGEST_SUMMARY_H

#include "orlith/ingest_run.h"
#include "orlith/session.h"

struct IngestReport {
  const IngestRun &run;
  const IngestOptions &options;
  IngestEnd end;
  double duration_s;
  uint64_t bytes_read;
};

void write_summary_text(const IngestReport &report, Session &session);
void write_summary_json(const IngestReport &report, Session &session);

#endif
