#pragma once
// What jobs send each other.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Codes of the events that the system itself sends.
enum ZrJobEventCode : std::uint32_t {
  kZrEventTimeLimit = 1,    ///< the time limit of the job named in the event has passed
  kZrEventClosed = 2,       ///< the connection named in the event is closed
  kZrEventEndServer = 3,    ///< the server that receives it is to end
  kZrEventWorkerDone = 5,   ///< a worker has left the joined task in the field "ctask"
  kZrEventLastMember = 6,   ///< the receiver is the last member of a joined task
  kZrEventDataArrived = 8,  ///< bytes wait in the connection named in the event
  kZrEventUnanswered = 9,   ///< the worker named in the event got no answer to its request
};

/// One event; a plain record, copied or moved into the queue. Not locked.
struct ZrJobEvent {
  std::string jobName;                        ///< the job that the event is about
  std::string text;                           ///< free text
  std::uint32_t code = 0;                     ///< see ZrJobEventCode; others are the sender's own
  std::vector<std::string> values;            ///< unnamed details
  std::map<std::string, std::string> fields;  ///< named details
};
