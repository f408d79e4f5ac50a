// What the fuzz targets share. A target fails by an assertion or a sanitizer's report.
#pragma once

#include <arpa/inet.h>
#include <sanitizer/allocator_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>

#include "protocol/QuilClient.h"

namespace fuzz {

// A client whose transport and connections fail, as far as a target says nothing else.
class Client : public QuilClient {
  public:
    using QuilClient::connectToServer;

    bool connectToServer(const char*, const char*) override { return false; }
    std::uint32_t readFromTransport(void*, std::uint32_t) override { return kTransportError; }
    std::uint32_t writeToTransport(const void*, std::uint32_t) override { return kTransportError; }
    std::uint32_t makeNetworkNumber(std::uint32_t value) const override { return htonl(value); }
    std::uint32_t makeHostNumber(std::uint32_t value) const override { return ntohl(value); }
    std::uint32_t SetReadWriteTimeout(std::uint32_t) override { return 0; }
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

    inline static std::ptrdiff_t now_ = 0;
    inline static std::ptrdiff_t peak_ = 0;
};

// A regular file in memory under a fixed descriptor, so that inputs can name it: "/proc/self/fd/NUMBER".
class MemoryFile {
  public:
    explicit MemoryFile(int number) : number_(number), path_("/proc/self/fd/" + std::to_string(number)) {
        const int made = memfd_create("fuzz", MFD_CLOEXEC);
        const bool placed = made >= 0 && dup2(made, number_) == number_;
        assert(placed);
        close(made);
    }

    const std::string& path() const { return path_; }

    // The file's whole content; it is read from its beginning.
    void write(const std::string& content) const {
        const bool written =
            ftruncate(number_, 0) == 0 && lseek(number_, 0, SEEK_SET) == 0 &&
            pwrite(number_, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size());
        assert(written);
    }

    std::string read() const {
        std::string content(static_cast<std::size_t>(lseek(number_, 0, SEEK_END)), '\0');
        const ssize_t got = pread(number_, content.data(), content.size(), 0);
        assert(got == static_cast<ssize_t>(content.size()));
        return content;
    }

  private:
    const int number_;
    const std::string path_;
};

}  // namespace fuzz
