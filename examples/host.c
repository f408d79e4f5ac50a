/* A small host program: sends one request to the application server of a client of clients.ini and prints the
   answer, header and body; a failure's page goes to standard error.

   usage: host CLIENT [PATH_INFO [QUERY_STRING]]     for example: host shop /form name=Ada */
#include <stdio.h>

#include "cgi/VeHttpResponse.h"
#include "client/Velarto.h"

/* Called for each message of the application server; false ends the dispatch with failure. */
static bool printMessage(ve_hclient_t* connection, TQUILReqType type, const char* data, uint32_t length,
                         void* user) {
    (void)connection;
    if (type == QUIL_HTTP_HEADER) {
        void* response = VeHttpParseResponse(data, false);
        if (response == NULL) return false;
        *(int32_t*)user = VeHttpGetStatusCode(response);
        VeHttpReleaseResponse(response);
    }
    if (type != QUIL_HTTP_HEADER && type != QUIL_BODY_DATA) return true;
    return fwrite(data, 1, length, stdout) == length;
}

/* One request from its parameters to the end of the answer; 0, or the code of the step that failed. */
static uint32_t get(ve_hclient_t* connection, const char* path, const char* query, int32_t* status) {
    ve_hrequest_t* request = VeClientAllocRequest(connection);
    uint32_t failed = 0;
    if (!VeRequestSetAtrtibute(request, QUIL_PARAM_REQUEST_METHOD, "GET") ||
        !VeRequestSetAtrtibute(request, QUIL_PARAM_PATH_INFO, path) ||
        !VeRequestSetAtrtibute(request, QUIL_PARAM_QUERY_STRING, query))
        failed = 603;
    else if (!VeClientConnectToServer(connection, request))
        failed = 602;
    else if (!VeClientSendRequest(connection, request))
        failed = 604;
    VeClientFreeRequest(connection, request);
    if (failed == 0 && !VeClientDispatchRequests(connection, printMessage, status)) failed = 605;
    return failed;
}

int main(int argc, char** argv) {
    if (argc < 2 || argc > 4) {
        fprintf(stderr, "usage: host CLIENT [PATH_INFO [QUERY_STRING]]\n");
        return 2;
    }
    if (!VeClientInitEnvironment(true, NULL, argv[1])) {
        fprintf(stderr, "%s\n", VeClientGetErrorHtml(NULL, 601));
        return 1;
    }
    int32_t status = 500;
    ve_hclient_t* connection = VeClientCreateConnection(0);
    const uint32_t failed = connection == NULL
                                ? 610
                                : get(connection, argc > 2 ? argv[2] : "/", argc > 3 ? argv[3] : "", &status);
    if (failed != 0) fprintf(stderr, "%s\n", VeClientGetErrorHtml(connection, failed));
    VeClientDestroyConnection(connection);
    VeClientCleanUp();
    return failed == 0 && status < 400 ? 0 : 1;
}
