#pragma once
// Classes of this folder that other headers only name.

class ZrBodyInlet;  // of the transceiver
class ZrFile;       // of the platform
class ZrHeaderFields;
class ZrHTTPMessageBlockDisposition;
class ZrPeerWatch;
class ZrCommandHandler;  // answers form commands; of a layer above
class ZrSemantics;
class ZrXHeader;
class ZrXResponseHeader;
class ZrXServerHeader;
struct ZrHTTPMessageBlock;
struct ZrMessageEnds;  // of the transceiver
