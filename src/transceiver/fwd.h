#pragma once
// Classes of this folder, and those that its contracts name.

#include "http/fwd.h"

class ZrMessageHandler;
class ZrOutgoingLink;
class ZrReceivePass;
class ZrServerLink;
class ZrTransceiver;
class ZrTransceiverConnection;
struct ZrMessageEnds;
struct ZrServerSetup;
