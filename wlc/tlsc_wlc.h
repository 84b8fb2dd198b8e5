// The controller interface: the two FIFOs, the handling of the controller's messages, the reports to it, and the
// configuration file that it shares with this process. Main thread unless a comment says otherwise.
#pragma once

#include <cstdint>

#include "wlc.h"

extern "C" {

// ---- transport ------------------------------------------------------------------------------------------------------

// Opens the inbound FIFO and greets the controller. Returns 1 always.
int tlscWlcInit();

// Closes the inbound FIFO and wipes the parameter block's key. Returns 1, whatever the close gave.
int tlscWlcCleanUp();

// Creates and opens "/tmp/wlc-to-tlsc-fifo". Returns 1, also when another process reads it already, or 0 (both logged).
int openWlcToTlscFifo();

// Reads one whole message into the receive record. Returns 1, or 0 when there is none. A FIFO that could not be opened
// is tried again.
int readFromTlscFifo();

// Sends one message: opens the controller's FIFO, writes, closes; never waits. Returns 1 or 0 (logged). Any thread.
int tlscWriteToWLC(const tlsc_wlc_msg *msg);

// Sends a message without payload. Returns as tlscWriteToWLC. Any thread.
int tlscPostMsgToWlc(uint32_t msgId);

// Closes the inbound descriptor. Returns 1, or 0 when close() failed.
int tlscWlcIpcCleanup();

// Removes the inbound FIFO, unless another process reads it; runs at process exit.
void tlscWlcDelFifo();

// The catalogue's name of a message; "Invalid" for one without a name.
const char *tlscWlcMsgName(uint32_t msgId);

// ---- messages -------------------------------------------------------------------------------------------------------

// Handles every message that waits. Returns 0, or -2 when the controller ordered the process to exit.
int wlcTlscFifoHandler();

// Handlers of one message each; they read the receive record. Return 1, or 0 where the message was rejected.
int tlscWlcMsgRcvSecTunStart();
int tlscWlcMsgRcvSecTunStop();
int tlscWlcMsgRcvSecTunReStart();
int tlscWlcMsgRcvTlsGwFqdnResolveResHandler();
int tlscWlcMsgRcvTlscDebugsSetHandler();
int tlscWlcMsgRcvTlscStatsRequestHandler();
int tlscWlcMsgRcvTlscStatsClearHandler();
int tlscWlcMsgRcvTlscDbgInfoReqHandler();

// Initialises the client and starts its monitor thread; reports the outcome. Returns 1 or 0.
int tlscWlcStartTunnelSetup();

// Sends the parameter block's log level and destination to the tunnel thread.
void tlscWlcSetDebugParams();

// Asks the controller to resolve the gateway's name. Returns 1 when the request was sent. Tunnel thread.
int tlscWlcMsgSendTlsGwFqdnResolveReq();

// ---- reports --------------------------------------------------------------------------------------------------------

// Takes a tunnel state (1 up, 0 down) over and reports it, unless it is the reported one. Returns 1. Tunnel thread.
int tlscWlcSetTunState(int state, int cause);

// Sends TUN_UP or TUN_DOWN with the cause's text. Returns 1, or 0 (logged).
int tlscWlcPostTlscStateChangeMsg(int state, int cause);

// Sends the statistics while the feature is enabled. Returns 1 when sent or disabled, else 0. Any thread.
int tlscWlcPostTlscStatsUpdateMsg();

// Sends the process id.
int tlscWlcPostTlscProcDbgInfoUpdateMsg();

// Sends the inner address as text, the DNS servers as records. Return 1 or 0. Tunnel thread.
int tlscWlcPostInnerIpUpdateMsg(const char *ip);
int tlscWlcPostCloudDnsSvrInfoUpdateMsg(const tlsc_dns_list *list);

// The feature status: 1 enabled, 0 disabled.
int     tlscWlcSetSecTunFeatureStatus(uint8_t status);
uint8_t tlscWlcGetSecTunFeatureStatus();

// The text of a tunnel-down cause; "Invalid" for one without a text.
const char *tlscWlcTunDownCauseName(int cause);

// ---- configuration file and parameter block -------------------------------------------------------------------------

// Stores one value in the parameter block. Returns 1, or 0 for a null argument.
int32_t wlcSecTunProcessConf(const char *key, const char *value);

// Reads the whole file into the parameter block and marks its entries as consumed. Returns 1, or 0 when a file could
// not be opened. Takes a second.
int32_t wlcSecTunReadAllConf();

// Sets one entry of the file; reads one entry into value_out (512 bytes). Return as wlcSecTunReadAllConf.
int32_t wlcSecTunUpdateConf(const char *key, const char *value);
int32_t wlcSecTunReadConf(const char *key, char *value_out);

// Empties the parameter block, but for the serial number and the system name. Returns 1.
int32_t tlscWlcClearCfgParams();

// The parameter block's values.
const char *tlscWlcGetServerIpAddress();
int32_t     tlscWlcGetServerPort();
const char *tlscWlcGetManagementIp();
const char *tlscWlcGetDeviceId();
const char *tlscWlcGetSerialNum();
const char *tlscWlcGetSystemName();
const char *tlscWlcGetTunInterfaceName();
const char *tlscWlcGetCipherAlgo();
const char *tlscWlcGetPskIdentity();
const char *tlscWlcGetPskKey();

}  // extern "C"
