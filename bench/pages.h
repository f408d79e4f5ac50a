/* What both servers of the benchmarks share: their pages, their options and their workers. */
#ifndef VELARTO_BENCH_PAGES_H
#define VELARTO_BENCH_PAGES_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A page as its path asks for it:
 *     /page/BYTES           one piece
 *     /pieces/COUNT/BYTES   so many pieces of so many bytes
 *     /sink                 one piece that tells how many bytes the request's body had */
struct page {
    size_t count;
    size_t bytes;
    int is_sink;
};

/* False for any other path, and for a piece of more than MAX_PIECE bytes. */
enum { MAX_PIECE = 128 * 1024 * 1024 };
int parse_page(const char* path, size_t length, struct page* page);

/* Fills a piece: the same bytes in every program and at every time. */
void fill_piece(char* piece, size_t bytes);

/* The sink's page, into a text of SINK_PAGE_SIZE bytes; its length. */
enum { SINK_PAGE_SIZE = 64 };
size_t write_sink_page(char* text, unsigned long long body_size);

/* The answer's header fields and the empty line, into a text of HEADER_FIELDS_SIZE bytes; their length. */
enum { HEADER_FIELDS_SIZE = 128 };
size_t write_header_fields(char* text, unsigned long long content_length);

/* A server's main program. Takes "--port N" (0, the default, picks one), or "--unix PATH", and "--workers N" (2), listens
 * on 127.0.0.1 or the path, says so in one line, "PROGRAM listening on 127.0.0.1:PORT" or "... unix:PATH", and forks
 * workers that run serve(listener) for ever; SIGTERM, SIGINT or SIGHUP ends it with all of them. */
int run_workers(int argc, char** argv, void (*serve)(int listener));

#ifdef __cplusplus
}
#endif

#endif
