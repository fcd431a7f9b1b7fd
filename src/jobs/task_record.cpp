#include "jobs/task_record.h"

void ZrRinvalJobParametersAndResult::Assign(const ZrRinvalJobParametersAndResult& other) {
  jobId = other.jobId;
  status = other.status;
}
