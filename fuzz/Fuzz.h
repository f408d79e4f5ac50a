// What the fuzz targets share. A target fails by an assertion or a sanitizer's report.
#pragma once

#include <sanitizer/allocator_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <string>

#include "protocol/QuilClient.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"

namespace fuzz {

// A client that reaches every server.
class Client : public support::FakeTransport<QuilClient> {
  public:
    bool connectToServer(const char* host, const char* port) override {
        setServer(host, port, 0x7F000001, 18155);
        return true;
    }
};

// The greatest number of bytes that were on the heap beyond those at its construction. One lives at a time.
class HeapWatch {
  public:
    HeapWatch() {
        static const int installed = __sanitizer_install_malloc_and_free_hooks(took, gave);
        assert(installed != 0);
        now_ = peak_ = 0;
    }

    static std::size_t peak() { return static_cast<std::size_t>(peak_); }

  private:
    static void took(const volatile void*, std::size_t size) {
        now_ += static_cast<std::ptrdiff_t>(size);
        peak_ = std::max(peak_, now_);
    }
    static void gave(const volatile void* block) {
        now_ -= static_cast<std::ptrdiff_t>(__sanitizer_get_allocated_size(const_cast<void*>(block)));
    }

    inline static std::ptrdiff_t now_ = 0, peak_ = 0;
};

// A regular file in memory under a fixed descriptor, so that inputs can name it: "/proc/self/fd/NUMBER".
class MemoryFile {
  public:
    explicit MemoryFile(int number) : number_(number) {
        const int made = memfd_create("fuzz", MFD_CLOEXEC);
        const int placed = dup2(made, number);
        assert(placed == number);
        close(made);
    }

    std::string path() const { return "/proc/self/fd/" + std::to_string(number_); }

    // The file's whole content; the descriptor is at its beginning then.
    void write(const std::string& content) const {
        support::writeFile(path(), content);
        lseek(number_, 0, SEEK_SET);
    }
    std::string read() const { return support::readFile(path()); }

  private:
    const int number_;
};

}  // namespace fuzz
