/* A host program in C and in C++: sends one request and takes the answer's header apart. Its own names are names inside
   the library too. */
#include <cgi/VeHttpResponse.h>
#include <client/Velarto.h>
#include <eventlog/eventlog.h>
#include <string.h>

const char* configFile = "mine";

#ifdef __cplusplus
class Socket {
  public:
    Socket() : own_(1) {}
    int own() const { return own_; }

  private:
    int own_;
};

class Mutex {
  public:
    void Lock();
    int locks = 0;
};

void Mutex::Lock() {
    ++locks;
}

static bool ownNamesAreMine(void) {
    Socket socket;
    Mutex mutex;
    mutex.Lock();
    return socket.own() == 1 && mutex.locks == 1 && strcmp(configFile, "mine") == 0;
}
#else
typedef char
    AsInCpp[sizeof(TQUILReqType) == 4 && sizeof(TQUILReqParamID) == 4 && sizeof(TSysEventType) == 4 ? 1 : -1];

static bool ownNamesAreMine(void) {
    return strcmp(configFile, "mine") == 0;
}
#endif

static bool takeStatus(ve_hclient_t* connection, TQUILReqType type, const char* data, uint32_t length,
                       void* user) {
    (void)connection;
    (void)length;
    if (type == QUIL_HTTP_HEADER) {
        void* response = VeHttpParseResponse(data, true);
        *(int32_t*)user = VeHttpGetStatusCode(response);
        VeHttpReleaseResponse(response);
    }
    return true;
}

int main(void) {
    int32_t status = 0;
    bool served = OpenSystemEventLog(NULL, NULL) && VeClientInitEnvironment(true, NULL, "host");
    ve_hclient_t* connection = VeClientCreateConnection(0);
    ve_hrequest_t* request = VeClientAllocRequest(connection);
    served = served && VeRequestSetAtrtibute(request, QUIL_PARAM_PATH_INFO, "/status") &&
             VeRequestSetAtrtibute(request, QUIL_PARAM_QUERY_STRING, "code=204") &&
             VeClientConnectToServer(connection, request) && VeClientSendRequest(connection, request) &&
             VeClientDispatchRequests(connection, takeStatus, &status);
    ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_RUNTIME, "status %d, mine %d", (int)status,
                      ownNamesAreMine());
    VeClientFreeRequest(connection, request);
    VeClientDestroyConnection(connection);
    served = VeClientCleanUp() && CloseSystemEventLog() && served;
    return served && status == 204 && ownNamesAreMine() ? 0 : 1;
}
