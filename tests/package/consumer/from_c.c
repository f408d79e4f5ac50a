/* A parameter comes back through the handle interface. */
#include <client/Velarto.h>
#include <string.h>

int main(void) {
    ve_hclient_t* connection = VeClientCreateConnection(0);
    ve_hrequest_t* request = VeClientAllocRequest(connection);
    const bool same = VeRequestSetAtrtibute(request, QUIL_PARAM_PATH_INFO, "/page") &&
                      strcmp(VeRequestGetAtrtibute(request, QUIL_PARAM_PATH_INFO), "/page") == 0;
    const bool freed = VeClientFreeRequest(connection, request) && VeClientDestroyConnection(connection);
    return same && freed ? 0 : 1;
}
