#include <cstdint>
#include <elf.h>
#include <fstream>
#include <link.h>
#include <malloc.h>
#include <string>
#include <string_view>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/memory.h"
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

/// Whether a debugger looks at this process. Its breakpoints stand in the code, and it may follow every page.
bool IsTraced() {
    constexpr std::string_view field = "TracerPid:\t";
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field)) return line.substr(field.size()) != "0";
    }
    return false;
}

/// Gives back the pages that lie wholly inside a segment; a page it shares with a neighbour stays. A kernel that does
/// not know the advice (before 5.4) refuses it, and nothing is given back.
void DropSegment(std::uintptr_t start, std::uintptr_t end) {
    static const auto pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = (start + pageSize - 1) / pageSize * pageSize;
    const std::uintptr_t last = end / pageSize * pageSize;
    if (first < last) madvise(reinterpret_cast<void*>(first), last - first, MADV_PAGEOUT);
}

int DropObject(dl_phdr_info* object, std::size_t, void*) {
    if (IsKernelObject(*object)) return 0;
    for (ElfW(Half) at = 0; at < object->dlpi_phnum; ++at) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[at];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
        const std::uintptr_t start = object->dlpi_addr + segment.p_vaddr;
        DropSegment(start, start + segment.p_filesz);
    }
    return 0;
}

}  // namespace

void TrimResidentLibraryPages() {
    if (!IsTraced()) dl_iterate_phdr(DropObject, nullptr);
}

void ReleaseFreeMemory() { malloc_trim(0); }

}  // namespace platform
