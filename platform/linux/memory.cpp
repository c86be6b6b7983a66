#include "platform/memory.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <elf.h>
#include <fcntl.h>
#include <fstream>
#include <link.h>
#include <malloc.h>
#include <span>
#include <string>
#include <string_view>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/linux/descriptor.h"
#include "platform/linux/linux.h"

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

/// Whether a debugger looks at this process. Its breakpoints are in the code, and it may watch every page.
bool IsTraced() {
    constexpr std::string_view field = "TracerPid:\t";
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field)) return line.substr(field.size()) != "0";
    }
    return false;
}

const auto pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));

/// Whether an entry of /proc/self/pagemap (the kernel's Documentation/admin-guide/mm/pagemap.rst) is of a page that is
/// in memory and is the file's own. A page that was written to, such as for a breakpoint, is this process's copy.
bool IsOfFile(std::uint64_t entry) {
    constexpr std::uint64_t present = 1ULL << 63, ofFile = 1ULL << 61;
    return (entry & present) != 0 && (entry & ofFile) != 0;
}

/// Gives back the file's pages that are wholly inside a segment, whoever else has mapped them: they are read again from
/// the file, or the page cache, when they are needed. This process's copies stay; nothing else has them.
void DropSegment(const Descriptor& pageMap, std::uintptr_t start, std::uintptr_t end) {
    std::array<std::uint64_t, 512> entries;
    std::uintptr_t page = (start + pageSize - 1) / pageSize;
    const std::uintptr_t last = end / pageSize;
    while (page < last) {
        const std::size_t wanted = std::min(entries.size(), std::size_t{last - page}) * sizeof entries[0];
        const ssize_t size = pread(pageMap.get(), entries.data(), wanted, static_cast<off_t>(page * sizeof entries[0]));
        if (size < static_cast<ssize_t>(sizeof entries[0])) return;
        const auto known = std::span(entries).first(static_cast<std::size_t>(size) / sizeof entries[0]);
        for (auto run = known.begin(); run != known.end();) {
            run = std::find_if(run, known.end(), IsOfFile);
            const auto behind = std::find_if_not(run, known.end(), IsOfFile);
            const std::uintptr_t at = page + static_cast<std::uintptr_t>(run - known.begin());
            const auto bytes = static_cast<std::size_t>(behind - run) * pageSize;
            if (bytes > 0) madvise(reinterpret_cast<void*>(at * pageSize), bytes, MADV_DONTNEED);
            run = behind;
        }
        page += known.size();
    }
}

int DropObject(dl_phdr_info* object, std::size_t, void* pageMap) {
    if (IsKernelObject(*object)) return 0;
    for (ElfW(Half) at = 0; at < object->dlpi_phnum; ++at) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[at];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
        const std::uintptr_t start = object->dlpi_addr + segment.p_vaddr;
        DropSegment(*static_cast<const Descriptor*>(pageMap), start, start + segment.p_filesz);
    }
    return 0;
}

}  // namespace

void TrimResidentLibraryPages() {
    if (IsTraced()) return;
    Descriptor pageMap(open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC));
    if (pageMap) dl_iterate_phdr(DropObject, &pageMap);
}

void ReleaseFreeMemory() { malloc_trim(0); }

void BoundFreeMemory() {
    mallopt(M_MMAP_THRESHOLD, static_cast<int>(largePieceBytes));
    mallopt(M_TRIM_THRESHOLD, static_cast<int>(largePieceBytes));
}

}  // namespace platform
