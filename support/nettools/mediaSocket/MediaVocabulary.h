// Words of the media transport: media type names, the words under which
// packet types are counted, and the names of the transport's error codes.
#pragma once

#include <cstdint>

// "Video", "Audio", "Aux", "MS", "DATA"; "Unknow" for any other value.
const char* GetMediaTypeName(uint32_t mediaType);

// "Rtp", "Rtcp", "Signal", "Anno", "Mouse", "Keepalive" for 0..4 and 128;
// "Unknow" for any other packet type.
const char* GetPacketTypeName(uint32_t pktType);

// "MEDIA_SOCKET_ERRCODE_FAILED" for -1000 and so on up to -974; "SUCCESS"
// for 0 and "Unknow" for anything else.
const char* GetMediaErrorName(int32_t code);
