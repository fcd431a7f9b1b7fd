#pragma once
// Classes of this folder that other headers only name.

class ZrFile;
class ZrHeaderFields;
class ZrHTTPMessageBlockDisposition;
class ZrMessageHandler;
class ZrOutgoingLink;
class ZrRequestHandler;
class ZrServerLink;
class ZrTransceiver;
class ZrTransceiverConnection;
class ZrXHeader;
class ZrXResponseHeader;
class ZrXServerHeader;
struct ZrHTTPMessageBlock;
