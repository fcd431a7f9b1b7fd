#pragma once

#include "base/line_writer.h"
#include "jobs/job_registry.h"

/// First member of an owner of jobs, so that it goes last: the threads of the process, those of the
/// registry and the one that writes lines, need not outlive the jobs.
struct ZrThreadsRest {
  ZrThreadsRest() = default;
  ZrThreadsRest(const ZrThreadsRest&) = delete;
  ZrThreadsRest& operator=(const ZrThreadsRest&) = delete;
  ~ZrThreadsRest() {
    if (ZrJobRegistry::Instance().Rest()) ZrLineWriter::Instance().Rest();
  }
};
