/* The client interface: what a host program (or the gateway) includes to send requests to an application
   server.

   Conventions:
   1. Connections and requests are opaque handles. The caller owns what a Create or Alloc function returned
   and gives it back to the matching Destroy or Free function. A handle that is null or designates no live
   object is refused: the function fails (false, null or 0) and touches nothing.
   2. Texts are NUL-terminated bytes; sizes and lengths are in bytes, time-outs in milliseconds. Texts passed
   in are copied; texts and bytes handed out belong to the library and stay valid as each function says.
   3. Nothing throws and nothing is printed. A function that fails in a way worth reporting records a code and
   a detail message in the calling thread's record; VeClientGetErrorHtml and VeClientGetErrorStatus show it. A
   failed set-up, connect or send records 601, 602 or 604; other failures are told by the result only.
   4. Order: VeClientInitEnvironment once; then for each request VeClientCreateConnection,
   VeClientAllocRequest, parameters and body, VeClientConnectToServer, VeClientSendRequest,
   VeClientFreeRequest, VeClientDispatchRequests, VeClientDestroyConnection; VeClientCleanUp at the end.
   5. Threads: a connection or a request is used by one thread at a time. Different threads may use different
   ones at the same time, and all other functions but VeClientInitEnvironment and VeClientCleanUp, which one
   thread calls while no other is in the library. Each thread has an error record of its own.

   Usable from C as from C++. */
#ifndef VELARTO_VELARTO_H
#define VELARTO_VELARTO_H

#include <stdbool.h>
#include <stdint.h>

#include "protocol/QuilTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ve_hclient ve_hclient_t;
typedef struct ve_hrequest ve_hrequest_t;

/* Called for each message of the application server, with QUIL_END last. data holds length bytes and a NUL
   after them; it is valid during the call. False stops the dispatch loop with failure. */
typedef bool (*VeClientDispatchCallback)(ve_hclient_t* connection, TQUILReqType type, const char* data,
                                         uint32_t length, void* user);

/* ---- environment ---- */

/* Loads the client's section of the configuration file (null or empty name: "clients.ini"); a section that is
   missing is added to the file with a server on this machine. Unless oneShot, a thread reloads the
   configuration when the file changes. False, with error 601 recorded, when there is no client name, the file
   cannot be used or the thread cannot be started. */
bool VeClientInitEnvironment(bool oneShot, const char* iniFileName, const char* clientName);

/* Stops the thread and drops the configuration. False, with everything left standing, when the thread does not
   end within ten seconds. No other call may be under way. */
bool VeClientCleanUp(void);

/* Whether the file name's extension is one of REGISTER_EXTNS (default zaf, zhtml, zml, zcf), letter case
   ignored. */
bool IsVelartoExtns(const char* path);

/* The truth values SENDFULLHEADER and PARSEFILEPATHS of the client's section; false when none is loaded. */
bool IsFullHeaderSupport(void);
bool ParseFilePaths(void);

/* DOCUMENTPATH, null when it was never set; valid until the thread's next call. */
const char* GetDocumentPath(void);

/* ---- connections ---- */

/* flags is reserved and not looked at. Null when there is no memory. */
ve_hclient_t* VeClientCreateConnection(uint32_t flags);
bool VeClientDestroyConnection(ve_hclient_t* connection);

/* Chooses an application server and connects. Waits for each server tried, up to one second. */
bool VeClientConnectToServer(ve_hclient_t* connection, ve_hrequest_t* request);

/* Sends the request; its HTTP_COOKIE parameter is rewritten to what was sent. */
bool VeClientSendRequest(ve_hclient_t* connection, ve_hrequest_t* request);

/* Serves the application server's messages until the end message (true), a failure, or a false from the
   callback. */
bool VeClientDispatchRequests(ve_hclient_t* connection, VeClientDispatchCallback callback, void* user);

/* ---- requests ---- */

ve_hrequest_t* VeClientAllocRequest(ve_hclient_t* connection);
bool VeClientFreeRequest(ve_hclient_t* connection, ve_hrequest_t* request);

/* A null value does nothing and is true, whatever the handle. False for QUIL_PARAM_NONE and beyond, and when
   there is no memory for the value. */
bool VeRequestSetAtrtibute(ve_hrequest_t* request, TQUILReqParamID id, const char* value);

/* The value, "" when it was never set; null for an unknown id. Valid until the parameter is set again. */
const char* VeRequestGetAtrtibute(ve_hrequest_t* request, TQUILReqParamID id);

/* Makes room for a body of size bytes, to be filled by the caller, who then sets the data size. Null when it
   cannot be had, and for size 0, which releases it. Valid until the next change of the body. */
unsigned char* VeRequestGetPostArgBuffer(ve_hrequest_t* request, uint32_t size);
bool VeRequestSetPostArgDataSize(ve_hrequest_t* request, uint32_t size);

/* Copies a body in. Size 0 releases the body and is false. */
bool VeRequestSetPostArgData(ve_hrequest_t* request, const void* data, uint32_t size);

/* The body in place and, through size (may be null), its length. Valid until the next change of the body. */
const unsigned char* VeRequestGetPostArgData(ve_hrequest_t* request, uint32_t* size);

/* ---- the connection's scratch buffer ----
   At least 5120 bytes; cut back to 32767 when less is asked for. Null when there is no memory for what is
   asked for. The pointer is valid until the next of these three, the next VeClientGetErrorHtml with this
   connection, the next dispatch or the connection's end. */
unsigned char* VeClientGetScratchBuffer(ve_hclient_t* connection, uint32_t size, uint32_t* bufferSize);
uint32_t VeClientGetScratchDataSize(ve_hclient_t* connection);
uint32_t VeClientSetScratchDataSize(ve_hclient_t* connection, uint32_t size); /* the resulting data size */

/* ---- errors and versions ---- */

/* The page to send for a code: the file ERROR_HTML of the client's section when a live connection is given,
   the code is not 601 and REPORTCLIENTERROR is not set; else the built-in page with the recorded detail
   message. Asking for another code than the recorded one records it and drops the message. Valid until the
   next call, or as the scratch buffer. */
const char* VeClientGetErrorHtml(ve_hclient_t* connection, uint32_t code);

/* "CODE Application Server Error"; valid until the next call. Records the code as above. */
const char* VeClientGetErrorStatus(uint32_t code);

const char* VeClientGetBuildVersion(void);
uint32_t VeClientGetProtocolVersion(void);

#ifdef __cplusplus
}
#endif

#endif
