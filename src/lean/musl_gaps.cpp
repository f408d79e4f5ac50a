// What g++'s language runtime asks of the C library and musl does not have. Part of the lean gateway only.
#include <link.h>

#include <cstdint>

extern "C" {

// Set by a C library that knows of no second thread. 0 is always right: the runtime then synchronises.
char __libc_single_threaded = 0;

// How the unwinder finds the unwind table of the object that holds an address. The layout is the unwinder's.
struct dl_find_object {
    unsigned long long dlfo_flags;
    void* dlfo_map_start;
    void* dlfo_map_end;
    struct link_map* dlfo_link_map;
    void* dlfo_eh_frame;
#ifdef __i386__
    void* dlfo_eh_dbase;
    int dlfo_eh_count;
#endif
    unsigned long long dlfo_reserved[7];
};

int _dl_find_object(void* address, struct dl_find_object* result);
}

namespace {

struct Search {
    std::uintptr_t address;
    dl_find_object* result;
};

// Fills the result when the address lies in this object.
int lookInObject(dl_phdr_info* object, std::size_t, void* data) {
    auto* search = static_cast<Search*>(data);
    bool holdsAddress = false;
    void* unwindTable = nullptr;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        const std::uintptr_t start = object->dlpi_addr + segment.p_vaddr;
        if (segment.p_type == PT_LOAD && search->address - start < segment.p_memsz) {
            holdsAddress = true;
            search->result->dlfo_map_start = reinterpret_cast<void*>(start);
            search->result->dlfo_map_end = reinterpret_cast<void*>(start + segment.p_memsz);
        }
        if (segment.p_type == PT_GNU_EH_FRAME) unwindTable = reinterpret_cast<void*>(start);
    }
    search->result->dlfo_eh_frame = unwindTable;
    return holdsAddress && unwindTable != nullptr ? 1 : 0;
}

}  // namespace

int _dl_find_object(void* address, struct dl_find_object* result) {
    Search search{reinterpret_cast<std::uintptr_t>(address), result};
    *result = {};
    return dl_iterate_phdr(lookInObject, &search) == 1 ? 0 : -1;
}
