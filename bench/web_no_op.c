/* A CGI program that asks nobody: writes the page of 1 KB at once. No other can make a web server faster. */
#include <unistd.h>

#include "pages.h"

int main(void) {
    enum { PAGE_SIZE = 1024 };
    char answer[HEADER_FIELDS_SIZE + PAGE_SIZE];
    const size_t header_size = write_header_fields(answer, PAGE_SIZE);
    const size_t size = header_size + PAGE_SIZE;
    fill_piece(answer + header_size, PAGE_SIZE);
    return write(STDOUT_FILENO, answer, size) == (ssize_t)size ? 0 : 1;
}
