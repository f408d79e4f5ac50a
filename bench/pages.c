#define _GNU_SOURCE

#include "pages.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <getopt.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

/* ---- Pages --------------------------------------------------------------------------------------------- */

/* Reads "/NUMBER" and moves behind it; false when there is none, or one out of 1 to limit. */
static int read_number(const char** at, const char* end, size_t limit, size_t* number) {
    const char* p = *at;
    if (p == end || *p++ != '/' || p == end) return 0;
    for (*number = 0; p < end && isdigit((unsigned char)*p) && *number <= limit; ++p)
        *number = *number * 10 + (size_t)(*p - '0');
    *at = p;
    return *number > 0 && *number <= limit;
}

static int skip_word(const char** at, const char* end, const char* word) {
    const size_t length = strlen(word);
    if ((size_t)(end - *at) < length || memcmp(*at, word, length) != 0) return 0;
    *at += length;
    return 1;
}

int parse_page(const char* path, size_t length, struct page* page) {
    const size_t max_count = 1000 * 1000 * 1000;
    const char* end = path + length;
    *page = (struct page){.count = 1};
    if (skip_word(&path, end, "/pieces")) {
        if (!read_number(&path, end, max_count, &page->count)) return 0;
    } else if (!skip_word(&path, end, "/page")) {
        page->is_sink = 1;
        return skip_word(&path, end, "/sink") && path == end;
    }
    return read_number(&path, end, MAX_PIECE, &page->bytes) && path == end;
}

/* Of prime length, so that bytes at a wrong place show. */
void fill_piece(char* piece, size_t bytes) {
    static const char pattern[] = "The quick brown fox jumps over the lazy dog, again....\n... and on.\n";
    for (size_t i = 0; i < bytes; ++i)
        piece[i] = pattern[i % (sizeof pattern - 1)];
}

size_t write_sink_page(char* text, unsigned long long body_size) {
    return (size_t)snprintf(text, SINK_PAGE_SIZE, "received %llu bytes\n", body_size);
}

size_t write_header_fields(char* text, unsigned long long content_length) {
    return (size_t)snprintf(text, HEADER_FIELDS_SIZE,
                            "Content-Type: text/plain\r\nContent-Length: %llu\r\n\r\n", content_length);
}

/* ---- Workers ------------------------------------------------------------------------------------------- */

static void fail(const char* what) {
    perror(what);
    exit(EXIT_FAILURE);
}

static int number_argument(const char* text, int low, int high) {
    char* end;
    const long number = strtol(text, &end, 10);
    if (end == text || *end != '\0' || number < low || number > high) {
        fprintf(stderr, "%s: '%s' is no number from %d to %d\n", program_invocation_short_name, text, low,
                high);
        exit(EXIT_FAILURE);
    }
    return (int)number;
}

/* Connections that are accepted inherit the option: no message waits for the acknowledgement of another. */
static int listen_on_port(int port) {
    const int on = 1;
    struct sockaddr_in address = {.sin_family = AF_INET};
    socklen_t size = sizeof address;
    address.sin_port = htons((unsigned short)port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        setsockopt(listener, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0 ||
        bind(listener, (const struct sockaddr*)&address, size) != 0 || listen(listener, SOMAXCONN) != 0 ||
        getsockname(listener, (struct sockaddr*)&address, &size) != 0) {
        fail("cannot listen");
    }
    printf("%s listening on 127.0.0.1:%d\n", program_invocation_short_name, ntohs(address.sin_port));
    fflush(stdout);
    return listener;
}

static int listen_on_path(const char* path) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    if (listener < 0 || bind(listener, (const struct sockaddr*)&address, sizeof address) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        fail("cannot listen");
    }
    printf("%s listening on unix:%s\n", program_invocation_short_name, path);
    fflush(stdout);
    return listener;
}

static pid_t start_worker(int listener, const sigset_t* signals, void (*serve)(int listener)) {
    const pid_t parent = getpid();
    const pid_t worker = fork();
    if (worker < 0) fail("cannot start a worker");
    if (worker > 0) return worker;
    sigprocmask(SIG_UNBLOCK, signals, NULL);
    prctl(PR_SET_PDEATHSIG, SIGTERM); /* also when the parent is killed */
    if (getppid() == parent) serve(listener);
    _exit(EXIT_FAILURE);
}

int run_workers(int argc, char** argv, void (*serve)(int listener)) {
    enum { MAX_WORKERS = 64 };
    static const struct option options[] = {{"port", required_argument, NULL, 'p'},
                                            {"unix", required_argument, NULL, 'u'},
                                            {"workers", required_argument, NULL, 'w'},
                                            {0}};
    pid_t workers[MAX_WORKERS];
    const char* path = NULL;
    int port = 0, count = 2, option, signal_number;
    while ((option = getopt_long(argc, argv, "", options, NULL)) != -1) {
        if (option == 'p') {
            port = number_argument(optarg, 0, 65535);
        } else if (option == 'u') {
            path = optarg;
        } else if (option == 'w') {
            count = number_argument(optarg, 1, MAX_WORKERS);
        } else {
            return EXIT_FAILURE;
        }
    }

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGCHLD); /* a worker that ends ends all */
    sigprocmask(SIG_BLOCK, &signals, NULL);
    signal(SIGPIPE, SIG_IGN);

    const int listener = path != NULL ? listen_on_path(path) : listen_on_port(port);
    for (int i = 0; i < count; ++i)
        workers[i] = start_worker(listener, &signals, serve);
    sigwait(&signals, &signal_number);
    for (int i = 0; i < count; ++i)
        kill(workers[i], SIGTERM);
    for (int i = 0; i < count; ++i)
        waitpid(workers[i], NULL, 0);
    return signal_number == SIGCHLD ? EXIT_FAILURE : EXIT_SUCCESS;
}
