/* The floor under every client: the least C program that carries a page over the protocol, for measuring the
 * gateway against it. It frames, acknowledges and passes on, and nothing else: no configuration, no choice of
 * server, no name service, no time-outs, no error page. The server is 127.0.0.1, its port VELARTO_FLOOR_PORT.
 * Any failure ends it with status 1. */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "framing.h"

enum {
    DEFAULT_PORT = 18155,
    HEADER_LIMIT = 64 * 1024,         /* of the HTTP header */
    MESSAGE_LIMIT = 129 * 1024 * 1024 /* of a message; what is not used of it takes no memory */
};

/* The HTTP header waits in front of the message, so that it leaves in one write with the first piece. */
static char memory[HEADER_LIMIT + MESSAGE_LIMIT];
static char* const message = memory + HEADER_LIMIT;

static const char* or_empty(const char* text) {
    return text != NULL ? text : "";
}

static void fail_unless(int done) {
    if (!done) _exit(1);
}

static void read_all(char* to, size_t size) {
    while (size > 0) {
        const ssize_t n = read(STDIN_FILENO, to, size);
        fail_unless(n > 0);
        to += n;
        size -= (size_t)n;
    }
}

static void write_all(const char* from, size_t size) {
    while (size > 0) {
        const ssize_t n = write(STDOUT_FILENO, from, size);
        fail_unless(n > 0);
        from += n;
        size -= (size_t)n;
    }
}

static void send_all(int server, const char* from, size_t size) {
    while (size > 0) {
        const ssize_t n = send(server, from, size, MSG_NOSIGNAL);
        fail_unless(n > 0);
        from += n;
        size -= (size_t)n;
    }
}

/* ---- The request --------------------------------------------------------------------------------------- */

static const char* cookies_and_client(const char* cookies, const char* program) {
    static const char own[] = "VelartoClient=";
    const char* slash = strrchr(program, '/');
    const char* client = slash != NULL ? slash + 1 : program;
    char* text = malloc(strlen(cookies) + sizeof "; " + sizeof own + strlen(client));
    fail_unless(text != NULL);
    strcpy(text, cookies);
    if (*cookies != '\0') strcat(text, "; ");
    strcat(text, own);
    return strcat(text, client);
}

static void collect_parameters(const char* values[QUIL_PARAM_NONE], const char* program) {
    for (int id = 0; id < QUIL_PARAM_NONE; ++id)
        values[id] = or_empty(getenv(parameter_names[id]));
    values[QUIL_PARAM_REMOTE_PASSWD] = "";
    values[QUIL_PARAM_COMMANDLINE] = program;
    values[QUIL_PARAM_FULLHEADER] = "";
    if (*values[QUIL_PARAM_CONTENT_LENGTH] == '\0') values[QUIL_PARAM_CONTENT_LENGTH] = "0";
    values[QUIL_PARAM_HTTP_COOKIE] = cookies_and_client(values[QUIL_PARAM_HTTP_COOKIE], program);
}

static uint32_t file_time(const char* path) {
    struct stat status;
    return *path != '\0' && stat(path, &status) == 0 ? (uint32_t)status.st_mtime : 0;
}

static size_t request_size(const char* const values[QUIL_PARAM_NONE], size_t body_size) {
    size_t size = HEAD_SIZE + 8 + body_size + FOOTER_SIZE;
    for (int id = 0; id < QUIL_PARAM_NONE; ++id)
        size += 8 + strlen(parameter_names[id]) + strlen(values[id]);
    return size;
}

/* One block and one send; the body is read to its place in it. */
static void send_request(int server, const char* const values[QUIL_PARAM_NONE]) {
    const size_t body_size = strtoul(values[QUIL_PARAM_CONTENT_LENGTH], NULL, 10);
    char* const request = malloc(request_size(values, body_size));
    fail_unless(request != NULL);
    char* to = put_head(request, QUIL_REQUEST);
    to = put_number(to, file_time(values[QUIL_PARAM_PATH_TRANSLATED]));
    to = put_number(to, (uint32_t)body_size);
    read_all(to, body_size);
    to += body_size;
    for (int id = 0; id < QUIL_PARAM_NONE; ++id)
        to = put_text(put_text(to, parameter_names[id]), values[id]);
    to = put_footer(to);
    send_all(server, request, (size_t)(to - request));
}

/* ---- The answer ---------------------------------------------------------------------------------------- */

static int connect_to_server(void) {
    const char* port = getenv("VELARTO_FLOOR_PORT");
    struct sockaddr_in address = {.sin_family = AF_INET};
    address.sin_port = htons((uint16_t)(port != NULL ? atoi(port) : DEFAULT_PORT));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int server = socket(AF_INET, SOCK_STREAM, 0);
    fail_unless(server >= 0 && connect(server, (const struct sockaddr*)&address, sizeof address) == 0);
    return server;
}

/* Receives at least size bytes of a message of which fill bytes are there; how many are there then. Whatever
 * comes belongs to this message: the server sends the next when it is acknowledged. */
static size_t receive(int server, size_t fill, size_t size) {
    fail_unless(size <= MESSAGE_LIMIT);
    while (fill < size) {
        const ssize_t n = recv(server, message + fill, MESSAGE_LIMIT - fill, 0);
        fail_unless(n > 0);
        fill += (size_t)n;
    }
    return fill;
}

static void check_head(void) {
    fail_unless(memcmp(message, "QUIL", 4) == 0 && number_at(message + 4) == QUIL_PROTOCOL_VERSION);
}

static void check_footer(const char* at) {
    fail_unless(memcmp(at, "END!", FOOTER_SIZE) == 0);
}

static void acknowledge(int server, TQUILReqType type) {
    char answer[HEAD_SIZE + 4 + FOOTER_SIZE];
    put_footer(put_number(put_head(answer, type), 1));
    send_all(server, answer, sizeof answer);
}

/* Keeps the header without its status line, ending where the message begins; its length. */
static size_t hold_header(const char* text, size_t length) {
    const char* line_end = memchr(text, '\n', length);
    fail_unless(line_end != NULL);
    const size_t held = length - (size_t)(line_end + 1 - text);
    fail_unless(held <= HEADER_LIMIT);
    memcpy(message - held, line_end + 1, held);
    return held;
}

static void pass_answer(int server) {
    char* const content = message + FRAME_SIZE;
    size_t held = 0;
    for (;;) {
        size_t fill = receive(server, 0, FRAME_SIZE); /* an end message has as many bytes */
        check_head();
        const TQUILReqType type = number_at(message + 8);
        if (type == QUIL_END) {
            check_footer(message + HEAD_SIZE);
            write_all(message - held, held);
            return;
        }
        fail_unless(type == QUIL_HTTP_HEADER || type == QUIL_BODY_DATA);
        const size_t length = number_at(message + HEAD_SIZE);
        receive(server, fill, FRAME_SIZE + length + FOOTER_SIZE);
        check_footer(content + length);
        acknowledge(server, type);
        if (type == QUIL_HTTP_HEADER) {
            held = hold_header(content, length);
        } else { /* over the frame, which has been read */
            memmove(content - held, message - held, held);
            write_all(content - held, held + length);
            held = 0;
        }
    }
}

int main(int argc, char** argv) {
    const char* values[QUIL_PARAM_NONE];
    collect_parameters(values, argc > 0 ? argv[0] : "");
    const int server = connect_to_server();
    send_request(server, values);
    pass_answer(server);
    return 0;
}
