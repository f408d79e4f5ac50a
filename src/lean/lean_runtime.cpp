// What the lean gateway has in place of parts of g++'s language runtime, which cost something at every start.
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

// The tables of addresses that only relocation writes. No loader is there to close them in a static program.
int protectRelocated(dl_phdr_info* object, std::size_t, void*) {
    const auto page = static_cast<std::uintptr_t>(getpagesize());
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_GNU_RELRO) continue;
        const std::uintptr_t begin = (object->dlpi_addr + segment.p_vaddr) & ~(page - 1);
        const std::uintptr_t end = (object->dlpi_addr + segment.p_vaddr + segment.p_memsz) & ~(page - 1);
        mprotect(reinterpret_cast<void*>(begin), end - begin, PROT_READ);
    }
    return 0;
}

[[gnu::constructor]] void protectRelocated() {
    dl_iterate_phdr(protectRelocated, nullptr);
}

// An exception in flight has the runtime's record in front of it (Itanium C++ ABI, 2.2.1); this is enough for
// every version of that record, and keeps the alignment of malloc().
constexpr std::size_t kRecord = 256;

void* allocateCleared(std::size_t size) {
    void* block = std::calloc(1, size);
    if (block == nullptr) std::abort();
    return block;
}

}  // namespace

// Exceptions come from the heap alone: the runtime's own reserve for a full memory is 73 KB, had and touched
// before main() begins.
extern "C" {

void* __cxa_allocate_exception(std::size_t size) noexcept;
void __cxa_free_exception(void* thrown) noexcept;
void* __cxa_allocate_dependent_exception() noexcept;
void __cxa_free_dependent_exception(void* record) noexcept;

void* __cxa_allocate_exception(std::size_t size) noexcept {
    return static_cast<char*>(allocateCleared(kRecord + size)) + kRecord;
}

void __cxa_free_exception(void* thrown) noexcept {
    std::free(static_cast<char*>(thrown) - kRecord);
}

void* __cxa_allocate_dependent_exception() noexcept {
    return allocateCleared(kRecord);
}

void __cxa_free_dependent_exception(void* record) noexcept {
    std::free(record);
}
}

// An exception that nobody catches ends the process without a word: standard error leads nowhere, and the
// words would need a demangler as large as the rest of the gateway.
namespace __gnu_cxx {
void __verbose_terminate_handler();
void __verbose_terminate_handler() {
    std::abort();
}
}  // namespace __gnu_cxx

// The containers' only way to fail beyond lack of memory; the standard library's own would bring its strings
// and locales.
namespace std {
[[noreturn]] void __throw_length_error(const char*);
void __throw_length_error(const char*) {
    abort();
}
}  // namespace std
