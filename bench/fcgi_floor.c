/* The floor under velarto-fcgi: the least FastCGI server that carries a page over the protocol, with as many threads. It
 * frames, acknowledges and passes on, and nothing else: no configuration, no choice of server, no time-outs, no error
 * page, no counting. Any failure ends the request.
 *
 * usage: velarto-fcgi-floor UNIX-SOCKET SERVER-PORT THREADS */
#define _POSIX_C_SOURCE 200809L

#include <fcgiapp.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdbool.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "framing.h"

static int listener;
static uint16_t server_port;

/* What a thread keeps from request to request. */
struct memory {
    char* bytes;
    size_t size;
};

static bool has_room(struct memory* memory, size_t size) {
    if (size <= memory->size) return true;
    char* grown = realloc(memory->bytes, size);
    if (grown == NULL) return false;
    memory->bytes = grown;
    memory->size = size;
    return true;
}

static bool send_all(int server, const char* from, size_t size) {
    while (size > 0) {
        const ssize_t n = send(server, from, size, MSG_NOSIGNAL);
        if (n <= 0) return false;
        from += n;
        size -= (size_t)n;
    }
    return true;
}

static bool receive(int server, struct memory* memory, size_t* fill, size_t size) {
    if (!has_room(memory, size)) return false;
    while (*fill < size) {
        const ssize_t n = recv(server, memory->bytes + *fill, memory->size - *fill, 0);
        if (n <= 0) return false;
        *fill += (size_t)n;
    }
    return true;
}

static bool send_request(int server, const FCGX_Request* request, struct memory* memory) {
    const char* values[QUIL_PARAM_NONE];
    for (int id = 0; id < QUIL_PARAM_NONE; ++id) {
        const char* value = FCGX_GetParam(parameter_names[id], request->envp);
        values[id] = value != NULL ? value : "";
    }
    values[QUIL_PARAM_HTTP_COOKIE] = "VelartoClient=floor";
    const size_t body = strtoul(values[QUIL_PARAM_CONTENT_LENGTH], NULL, 10);
    size_t size = HEAD_SIZE + 8 + body + FOOTER_SIZE;
    for (int id = 0; id < QUIL_PARAM_NONE; ++id)
        size += 8 + strlen(parameter_names[id]) + strlen(values[id]);
    if (!has_room(memory, size)) return false;
    char* to = put_head(memory->bytes, QUIL_REQUEST);
    to = put_number(put_number(to, 0), (uint32_t)body);
    if (FCGX_GetStr(to, (int)body, request->in) != (int)body) return false;
    to += body;
    for (int id = 0; id < QUIL_PARAM_NONE; ++id)
        to = put_text(put_text(to, parameter_names[id]), values[id]);
    to = put_footer(to);
    return send_all(server, memory->bytes, (size_t)(to - memory->bytes));
}

static bool pass_answer(int server, FCGX_Stream* out, struct memory* memory) {
    for (;;) {
        size_t fill = 0;
        if (!receive(server, memory, &fill, FRAME_SIZE)) return false; /* an end message has as many bytes */
        const TQUILReqType type = number_at(memory->bytes + 8);
        if (type == QUIL_END) return true;
        const size_t length = number_at(memory->bytes + HEAD_SIZE);
        if (!receive(server, memory, &fill, FRAME_SIZE + length + FOOTER_SIZE)) return false;
        char answer[HEAD_SIZE + 4 + FOOTER_SIZE];
        put_footer(put_number(put_head(answer, type), 1));
        if (!send_all(server, answer, sizeof answer)) return false;
        const char* content = memory->bytes + FRAME_SIZE;
        const char* from = content;
        if (type == QUIL_HTTP_HEADER) from = (const char*)memchr(content, '\n', length) + 1;
        FCGX_PutStr(from, (int)(content + length - from), out);
        if (type == QUIL_BODY_DATA && FCGX_FFlush(out) != 0) return false; /* each piece leaves at once */
    }
}

static void answer(const FCGX_Request* request, struct memory* memory) {
    struct sockaddr_in address = {.sin_family = AF_INET};
    address.sin_port = htons(server_port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int server = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(server, (const struct sockaddr*)&address, sizeof address) == 0 &&
        send_request(server, request, memory))
        pass_answer(server, request->out, memory);
    close(server);
}

static void* serve(void* unused) {
    (void)unused;
    struct memory memory = {NULL, 0};
    FCGX_Request request;
    if (!has_room(&memory, 64 * 1024) || FCGX_InitRequest(&request, listener, 0) != 0) return NULL;
    while (FCGX_Accept_r(&request) == 0)
        answer(&request, &memory);
    free(memory.bytes);
    return NULL;
}

int main(int argc, char** argv) {
    if (argc != 4) return EXIT_FAILURE;
    signal(SIGPIPE, SIG_IGN);
    listener = FCGX_OpenSocket(argv[1], 4096);
    if (listener < 0 || FCGX_Init() != 0) return EXIT_FAILURE;
    signal(SIGTERM, SIG_DFL); /* libfcgi catches it, and goes on */
    server_port = (uint16_t)atoi(argv[2]);
    for (int i = atoi(argv[3]); i > 0; --i) {
        pthread_t thread;
        if (pthread_create(&thread, NULL, serve, NULL) != 0) return EXIT_FAILURE;
    }
    for (;;)
        pause();
}
