// What stands before the blocks of the guides that are marked "inside".
#include "handlers/request_handler.h"
#include "http/form_writer.h"
#include "jobs/job_registry.h"

extern std::shared_ptr<ZrTransceiverClient> client;
