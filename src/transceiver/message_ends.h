#pragma once
// Who a received message came from and to, found once: the message and its answer carry the ends,
// so that the answer's way back needs no look-up by name.

#include <memory>
#include <string>

#include "base/shared_text.h"
#include "http/message_route.h"
#include "jobs/task_guest.h"

#include "transceiver/fwd.h"

class ZrJob;

/// Constant, and shared by all messages of one connection. Keeps nobody alive: a program may hold a
/// request long after its connection has gone.
struct ZrMessageEnds {
  std::weak_ptr<ZrTransceiverConnection> connection = {};
  std::weak_ptr<ZrServerLink> server = {};
  const ZrMessageHandler* handler = nullptr;  ///< For comparison only.
  ZrMessageRoute route = {};                  ///< Of the messages; may be empty, like the next two.
  ZrSharedText target = {};                   ///< The joined task of the connection ...
  ZrTaskHandle task = {};                     ///< ... in which messages and answers are guests.
};

namespace zr {

/// The server is in that joined task for the time of the answer, whose `target` it becomes: as a
/// guest where the answer's ends know the task, else as a member.
void JoinTask(ZrJob& server, ZrXHeader& answer, const std::string& task);

}  // namespace zr
