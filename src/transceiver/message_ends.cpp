#include "transceiver/message_ends.h"

#include "http/message_head.h"

void zr::JoinTask(ZrJob& server, ZrXHeader& answer, const std::string& task) {
  if (answer.ends && answer.ends->task && answer.ends->target.Text() == task) {
    answer.target = answer.ends->target;
    answer.presence = ZrTaskGuest(answer.ends->task);
  } else {
    answer.target = task;
    server.Attach(answer.target);
  }
}
