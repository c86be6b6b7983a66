#include <cstdint>
#include <elf.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/posix/posix.h"

namespace platform {

namespace {

/// The kernel's own object in every process; it has no file behind it.
bool IsKernelObject(const dl_phdr_info& object) {
    const unsigned long header = getauxval(AT_SYSINFO_EHDR);
    for (ElfW(Half) at = 0; at < object.dlpi_phnum; ++at) {
        const ElfW(Phdr)& segment = object.dlpi_phdr[at];
        const ElfW(Addr) start = object.dlpi_addr + segment.p_vaddr;
        if (segment.p_type == PT_LOAD && header >= start && header < start + segment.p_memsz) return true;
    }
    return false;
}

/// Whether the loader has written into the object's code (text relocations), which a dropped page would lose.
bool HasPatchedCode(const dl_phdr_info& object) {
    for (ElfW(Half) at = 0; at < object.dlpi_phnum; ++at) {
        const ElfW(Phdr)& segment = object.dlpi_phdr[at];
        if (segment.p_type != PT_DYNAMIC) continue;
        const auto* entry = reinterpret_cast<const ElfW(Dyn)*>(object.dlpi_addr + segment.p_vaddr);
        for (; entry->d_tag != DT_NULL; ++entry) {
            if (entry->d_tag == DT_TEXTREL) return true;
            if (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0) return true;
        }
    }
    return false;
}

/// Gives back the pages that lie wholly inside a segment; a page it shares with a neighbour stays.
void DropSegment(std::uintptr_t start, std::uintptr_t end) {
    static const auto pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = (start + pageSize - 1) / pageSize * pageSize;
    const std::uintptr_t last = end / pageSize * pageSize;
    if (first < last) madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED);
}

int DropObject(dl_phdr_info* object, std::size_t, void*) {
    if (IsKernelObject(*object) || HasPatchedCode(*object)) return 0;
    for (ElfW(Half) at = 0; at < object->dlpi_phnum; ++at) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[at];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
        const std::uintptr_t start = object->dlpi_addr + segment.p_vaddr;
        DropSegment(start, start + segment.p_filesz);
    }
    return 0;
}

}  // namespace

void TrimResidentLibraryPages() { dl_iterate_phdr(DropObject, nullptr); }

}  // namespace platform
