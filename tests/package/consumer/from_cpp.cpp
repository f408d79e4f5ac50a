// A response is taken apart, and the event log told of it.
#include <cgi/VeHttpResponse.h>
#include <eventlog/eventlog.h>

int main() {
    void* response = VeHttpParseResponse("HTTP/1.0 204 No Content\r\n\r\n", true);
    const int status = VeHttpGetStatusCode(response);
    VeHttpReleaseResponse(response);
    const bool told = OpenSystemEventLog(nullptr, nullptr) &&
                      ReportSystemEvent(SYS_EVENT_INFO, SYS_EVENT_RUNTIME, "status %d", status) &&
                      CloseSystemEventLog();
    return told && status == 204 ? 0 : 1;
}
