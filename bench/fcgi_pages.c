/* The pages of the benchmarks over FastCGI, for a comparison with another connector. Pages and options:
 * pages.h. */
#include <fcgiapp.h>
#include <stdlib.h>
#include <string.h>

#include "pages.h"

static unsigned long long read_body(FCGX_Stream* in) {
    char buffer[32 * 1024];
    unsigned long long size = 0;
    int n;
    while ((n = FCGX_GetStr(buffer, sizeof buffer, in)) > 0)
        size += (unsigned long long)n;
    return size;
}

static void send_header(FCGX_Stream* out, unsigned long long content_length) {
    char fields[HEADER_FIELDS_SIZE];
    FCGX_PutStr(fields, (int)write_header_fields(fields, content_length), out);
}

static void send_sink_page(const FCGX_Request* request) {
    char text[SINK_PAGE_SIZE];
    const size_t size = write_sink_page(text, read_body(request->in));
    send_header(request->out, size);
    FCGX_PutStr(text, (int)size, request->out);
}

/* A piece that is asked for again is not made again. */
static const char* piece_of(size_t bytes) {
    static char* piece = NULL;
    static size_t size = 0;
    if (size != bytes) {
        free(piece);
        piece = malloc(bytes);
        if (piece == NULL) exit(EXIT_FAILURE);
        fill_piece(piece, bytes);
        size = bytes;
    }
    return piece;
}

/* When to send is left to the library. cgi-fcgi breaks off at a record whose head arrives in two parts, and the
 * fewer sends there are, the less often that happens. */
static void send_page(FCGX_Stream* out, const struct page* page) {
    const char* piece = piece_of(page->bytes);
    send_header(out, (unsigned long long)page->count * page->bytes);
    for (size_t i = 0; i < page->count; ++i) {
        if (FCGX_PutStr(piece, (int)page->bytes, out) < 0) return;
    }
}

static void answer(const FCGX_Request* request) {
    const char* path = FCGX_GetParam("PATH_INFO", request->envp);
    struct page page;
    if (path == NULL || !parse_page(path, strlen(path), &page)) {
        FCGX_PutS("Status: 404 Not Found\r\nContent-Type: text/plain\r\n\r\nno such page\n", request->out);
    } else if (page.is_sink) {
        send_sink_page(request);
    } else {
        send_page(request->out, &page);
    }
}

static void serve(int listener) {
    FCGX_Request request;
    if (FCGX_Init() != 0 || FCGX_InitRequest(&request, listener, 0) != 0) return;
    while (FCGX_Accept_r(&request) == 0)
        answer(&request);
}

int main(int argc, char** argv) {
    return run_workers(argc, argv, serve);
}
